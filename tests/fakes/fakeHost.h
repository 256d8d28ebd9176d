#pragma once

#include "hostctl/host.h"

#include <functional>
#include <map>

/// A host whose figures the test sets. An operation named in `failing` throws.
class FakeHost : public HostCtl::HostProvider {
public:
   FakeHost() { HostCtl::HostFactory::SetProvider(this); }
   ~FakeHost() override { HostCtl::HostFactory::SetProvider(nullptr); }

   struct Disk {
      std::string name;
      HostCtl::Storage::StorageStatistics statistics;
      std::vector<HostCtl::Storage::WorldStatistics> worlds;
   };
   struct Nic {
      std::string name;
      bool hasPort;
      HostCtl::Network::PortStatistics statistics;
   };

   std::vector<HostCtl::Resource::HostCpuStats> cpus{{0, 0}};
   uint64_t speedHz = 2000000000;
   uint64_t physicalBytes = 1U << 20;
   HostCtl::Resource::HostCapacity capacity;
   HostCtl::Resource::HostMemoryStats memory;
   std::vector<Disk> disks;
   std::vector<Nic> nics;
   std::map<uint32_t, HostCtl::Network::PortStatistics> ports;
   const HostCtl::Resource::CpuLoadHistory* load = nullptr;
   std::function<void(const std::string& operation)> before = [](const std::string&) {};

   HostCtl::Host* GetHost() override
   {
      before("GetHost");
      return new View(*this);
   }
   HostCtl::Network::Port* GetPort(uint32_t portId) override
   {
      before("GetPort");
      return ports.contains(portId) ? new Port(ports.at(portId)) : nullptr;
   }

private:
   struct Port : HostCtl::Network::Port {
      explicit Port(HostCtl::Network::PortStatistics s) : statistics(s) {}
      HostCtl::Network::PortStatistics GetStatistics() override { return statistics; }
      HostCtl::Network::PortStatistics statistics;
   };
   struct Lun : HostCtl::Storage::DiskLun {
      explicit Lun(Disk d) : disk(std::move(d)) {}
      std::string GetScsiName() override { return disk.name; }
      uint64_t GetBlockSizeBytes() override { return 512; }
      HostCtl::Storage::StorageStatistics GetStatistics() override { return disk.statistics; }
      std::vector<HostCtl::Storage::WorldStatistics> GetWorldStatistics() override
      {
         return disk.worlds;
      }
      Disk disk;
   };
   struct PhysicalNic : HostCtl::Network::PhysicalNic {
      explicit PhysicalNic(Nic n) : nic(std::move(n)) {}
      std::string GetName() override { return nic.name; }
      HostCtl::Network::Port* GetUplinkPort() override
      {
         return nic.hasPort ? new Port(nic.statistics) : nullptr;
      }
      Nic nic;
   };
   struct Group : HostCtl::Resource::ResourceGroup {
      explicit Group(const HostCtl::Resource::CpuLoadHistory* l) : load(l) {}
      HostCtl::Resource::CpuLoadHistory* GetCpuLoadHistory() override
      {
         return load ? new HostCtl::Resource::CpuLoadHistory(*load) : nullptr;
      }
      const HostCtl::Resource::CpuLoadHistory* load;
   };
   struct Cpu : HostCtl::Hardware::Cpu {
      explicit Cpu(uint64_t hz) : speedHz(hz) {}
      uint64_t GetSpeedHz() override { return speedHz; }
      uint64_t speedHz;
   };

   /// All of the library's interfaces on one fake.
   struct View : HostCtl::Host,
                 HostCtl::Resource::ResourceInfo,
                 HostCtl::Storage::StorageInfo,
                 HostCtl::Network::NetworkInfo,
                 HostCtl::Hardware::HardwareInfo,
                 HostCtl::Hardware::CpuInfo,
                 HostCtl::Hardware::MemoryInfo {
      explicit View(FakeHost& h) : host(h) {}
      View* Copy(const char* operation)
      {
         host.before(operation);
         return new View(host);
      }
      HostCtl::Resource::ResourceInfo* GetResourceInfo() override
      {
         return Copy("GetResourceInfo");
      }
      HostCtl::Storage::StorageInfo* GetStorageInfo() override { return Copy("GetStorageInfo"); }
      HostCtl::Network::NetworkInfo* GetNetworkInfo() override { return Copy("GetNetworkInfo"); }
      HostCtl::Hardware::HardwareInfo* GetHardwareInfo() override
      {
         return Copy("GetHardwareInfo");
      }
      HostCtl::Hardware::CpuInfo* GetCpuInfo() override { return Copy("GetCpuInfo"); }
      HostCtl::Hardware::MemoryInfo* GetMemoryInfo() override { return Copy("GetMemoryInfo"); }
      std::vector<HostCtl::Resource::HostCpuStats> GetCpuStats() override
      {
         host.before("GetCpuStats");
         return host.cpus;
      }
      uint64_t GetUptimeUs() override { return 90000000; }
      HostCtl::Resource::HostCapacity GetCapacity() override { return host.capacity; }
      HostCtl::Resource::HostMemoryStats GetMemoryStats() override
      {
         host.before("GetMemoryStats");
         return host.memory;
      }
      HostCtl::Resource::ResourceGroup* GetRootGroup() override { return new Group(host.load); }
      std::vector<HostCtl::Storage::DiskLun*> GetDiskLuns() override
      {
         host.before("GetDiskLuns");
         std::vector<HostCtl::Storage::DiskLun*> luns;
         for (const Disk& disk : host.disks) {
            luns.push_back(new Lun(disk));
         }
         return luns;
      }
      std::vector<HostCtl::Network::PhysicalNic*> GetPhysicalNics() override
      {
         std::vector<HostCtl::Network::PhysicalNic*> nics;
         for (const Nic& nic : host.nics) {
            nics.push_back(new PhysicalNic(nic));
         }
         return nics;
      }
      uint32_t GetCoreCount() override { return static_cast<uint32_t>(host.cpus.size()); }
      std::vector<HostCtl::Hardware::Cpu*> GetCpus() override
      {
         std::vector<HostCtl::Hardware::Cpu*> all;
         for (size_t i = 0; i < host.cpus.size(); ++i) {
            all.push_back(new Cpu(host.speedHz));
         }
         return all;
      }
      uint64_t GetPhysicalBytes() override { return host.physicalBytes; }

      FakeHost& host;
   };
};
