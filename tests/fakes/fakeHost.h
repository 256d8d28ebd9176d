#pragma once

#include "hostctl/host.h"

#include <functional>
#include <map>

/// A host whose figures the test sets. `before` is called with an operation's name and may throw.
class FakeHost : public HostCtl::HostProvider {
public:
   FakeHost() { HostCtl::HostFactory::SetProvider(this); }
   ~FakeHost() override { HostCtl::HostFactory::SetProvider(nullptr); }

   struct Disk {
      std::string name;
      HostCtl::Storage::StorageStatistics statistics;
      std::vector<HostCtl::Storage::WorldStatistics> worlds;
   };

   std::vector<HostCtl::Resource::HostCpuStats> cpus{{0, 0}};
   uint64_t speedHz = 2000000000;
   HostCtl::Resource::HostMemoryStats memory;
   std::vector<Disk> disks;
   std::vector<std::string> nics; ///< none of them has a port
   int64_t sumCorrectionKb = 0;   ///< of disks and of NICs
   std::map<uint32_t, HostCtl::Network::PortStatistics> ports;
   std::function<void(const std::string& operation)> before = [](const std::string&) {};

   HostCtl::Host* GetHost() override { return View(*this).Copy("GetHost"); }
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
      explicit PhysicalNic(std::string n) : name(std::move(n)) {}
      std::string GetName() override { return name; }
      HostCtl::Network::Port* GetUplinkPort() override { return nullptr; }
      std::string name;
   };
   struct Group : HostCtl::Resource::ResourceGroup {
      HostCtl::Resource::CpuLoadHistory* GetCpuLoadHistory() override { return nullptr; }
   };
   struct Cpu : HostCtl::Hardware::Cpu {
      explicit Cpu(uint64_t hz) : speedHz(hz) {}
      uint64_t GetSpeedHz() override { return speedHz; }
      uint64_t speedHz;
   };

   /// All interfaces of the library, on one FakeHost.
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
      /// One object of the library for each element of `all`.
      template <class Made, class Interface, class Set>
      std::vector<Interface*> Make(const char* operation, const std::vector<Set>& all)
      {
         host.before(operation);
         std::vector<Interface*> made;
         for (const Set& one : all) {
            made.push_back(new Made(one));
         }
         return made;
      }
      HostCtl::Resource::ResourceInfo* GetResourceInfo() override { return Copy("resource info"); }
      HostCtl::Storage::StorageInfo* GetStorageInfo() override { return Copy("storage info"); }
      HostCtl::Network::NetworkInfo* GetNetworkInfo() override { return Copy("network info"); }
      HostCtl::Hardware::HardwareInfo* GetHardwareInfo() override { return Copy("hardware info"); }
      HostCtl::Hardware::CpuInfo* GetCpuInfo() override { return Copy("CPU info"); }
      HostCtl::Hardware::MemoryInfo* GetMemoryInfo() override { return Copy("memory info"); }
      std::vector<HostCtl::Resource::HostCpuStats> GetCpuStats() override { return host.cpus; }
      uint64_t GetUptimeUs() override { return 90000000; }
      HostCtl::Resource::HostCapacity GetCapacity() override { return {}; }
      HostCtl::Resource::HostMemoryStats GetMemoryStats() override
      {
         host.before("GetMemoryStats");
         return host.memory;
      }
      HostCtl::Resource::ResourceGroup* GetRootGroup() override { return new Group; }
      std::vector<HostCtl::Storage::DiskLun*> GetDiskLuns() override
      {
         return Make<Lun, HostCtl::Storage::DiskLun>("GetDiskLuns", host.disks);
      }
      std::vector<HostCtl::Network::PhysicalNic*> GetPhysicalNics() override
      {
         return Make<PhysicalNic, HostCtl::Network::PhysicalNic>("GetPhysicalNics", host.nics);
      }
      int64_t GetSumCorrectionKb() override { return host.sumCorrectionKb; }
      uint32_t GetCoreCount() override { return static_cast<uint32_t>(host.cpus.size()); }
      std::vector<HostCtl::Hardware::Cpu*> GetCpus() override
      {
         return Make<Cpu, HostCtl::Hardware::Cpu>(
            "GetCpus", std::vector<uint64_t>(host.cpus.size(), host.speedHz));
      }
      uint64_t GetPhysicalBytes() override { return 1U << 20; }

      FakeHost& host;
   };
};
