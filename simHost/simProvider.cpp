#include "simHost/simProvider.h"

#include "corvax/clock.h"
#include "corvax/format.h"

#include <algorithm>

namespace SimHost {

namespace {

using HostCtl::Lib::HostCtlException;

class RootGroupImpl : public HostCtl::Resource::ResourceGroup {
public:
   explicit RootGroupImpl(const SimState& state) : _state(state) {}

   HostCtl::Resource::CpuLoadHistory* GetCpuLoadHistory() override
   {
      return new HostCtl::Resource::CpuLoadHistory(
         GetCpuLoad(_state.GetHostKey(), _state.GetTimeSec()));
   }

private:
   const SimState& _state;
};

class ResourceInfoImpl : public HostCtl::Resource::ResourceInfo {
public:
   explicit ResourceInfoImpl(const SimState& state) : _state(state) {}

   std::vector<HostCtl::Resource::HostCpuStats> GetCpuStats() override
   {
      const uint64_t cpus = _state.GetOptions().cpus;
      std::vector<HostCtl::Resource::HostCpuStats> stats;
      stats.reserve(cpus);
      for (uint64_t cpu = 0; cpu < cpus; ++cpu) {
         stats.push_back(GetHostCpu(_state.GetHostKey(), cpu, _state.GetTimeSec()));
      }
      return stats;
   }
   uint64_t GetUptimeUs() override
   {
      return GetUptimeSec({_state.GetTimeSec()}) * Corvax::kMicrosecondsPerSecond;
   }
   HostCtl::Resource::HostCapacity GetCapacity() override
   {
      return GetHostCapacity(_state.GetHostKey(), _state.GetTimeSec());
   }
   HostCtl::Resource::HostMemoryStats GetMemoryStats() override
   {
      return GetHostMemory(_state.GetHostKey(), GetPhysicalKb(_state.GetOptions().cpus),
                           _state.GetTimeSec());
   }
   HostCtl::Resource::ResourceGroup* GetRootGroup() override { return new RootGroupImpl(_state); }

private:
   const SimState& _state;
};

class DiskLunImpl : public HostCtl::Storage::DiskLun {
public:
   DiskLunImpl(const SimState& state, uint64_t index)
      : _state(state), _disk(state.GetDisks()[index]), _startSec(state.GetDiskParts()[index])
   {
   }

   std::string GetScsiName() override { return _disk.name; }
   uint64_t GetBlockSizeBytes() override { return kBlockSizeBytes; }
   HostCtl::Storage::StorageStatistics GetStatistics() override
   {
      return GetDisk(_disk.key, {_state.GetTimeSec(), _startSec});
   }
   std::vector<HostCtl::Storage::WorldStatistics> GetWorldStatistics() override
   {
      std::vector<HostCtl::Storage::WorldStatistics> worlds;
      worlds.reserve(_disk.images.size());
      for (const SimState::Image& image : _disk.images) {
         const VmShape& vm = _state.GetVm(image.vmIndex).shape;
         if (!vm.isHung && image.index < vm.images.size()) {
            // With a disk of the host, the images on it begin anew, too.
            const int64_t startSec = std::max(vm.images[image.index], _startSec);
            worlds.push_back(
               {SimState::GetWorldId(image.vmIndex),
                GetDisk(vm.key.Part(image.index), {_state.GetVmTimeSec(), startSec})});
         }
      }
      return worlds;
   }

private:
   const SimState& _state;
   const SimState::Disk& _disk;
   const int64_t _startSec;
};

class StorageInfoImpl : public HostCtl::Storage::StorageInfo {
public:
   explicit StorageInfoImpl(const SimState& state) : _state(state) {}

   std::vector<HostCtl::Storage::DiskLun*> GetDiskLuns() override
   {
      std::vector<HostCtl::Storage::DiskLun*> luns;
      luns.reserve(_state.GetDiskParts().size());
      for (uint64_t disk = 0; disk < _state.GetDiskParts().size(); ++disk) {
         luns.push_back(new DiskLunImpl(_state, disk));
      }
      return luns;
   }
   int64_t GetSumCorrectionKb() override { return _state.GetRemovedDisksKb(); }

private:
   const SimState& _state;
};

class PortImpl : public HostCtl::Network::Port {
public:
   explicit PortImpl(const HostCtl::Network::PortStatistics& statistics) : _statistics(statistics)
   {
   }

   HostCtl::Network::PortStatistics GetStatistics() override { return _statistics; }

private:
   const HostCtl::Network::PortStatistics _statistics;
};

/// The port of a failing VM.
class FailingPort : public HostCtl::Network::Port {
public:
   explicit FailingPort(uint32_t portId) : _portId(portId) {}

   HostCtl::Network::PortStatistics GetStatistics() override
   {
      throw HostCtlException(
         Corvax::Format("Cannot read port %1: its simulated virtual machine is failing", _portId));
   }

private:
   const uint32_t _portId;
};

class PhysicalNicImpl : public HostCtl::Network::PhysicalNic {
public:
   PhysicalNicImpl(const SimState::Device& nic, const Moment& moment) : _nic(nic), _moment(moment)
   {
   }

   std::string GetName() override { return _nic.name; }
   HostCtl::Network::Port* GetUplinkPort() override
   {
      return new PortImpl(GetPort(_nic.key, _moment));
   }

private:
   const SimState::Device& _nic;
   const Moment _moment;
};

class NetworkInfoImpl : public HostCtl::Network::NetworkInfo {
public:
   explicit NetworkInfoImpl(const SimState& state) : _state(state) {}

   std::vector<HostCtl::Network::PhysicalNic*> GetPhysicalNics() override
   {
      std::vector<HostCtl::Network::PhysicalNic*> nics;
      const SimParts& parts = _state.GetNicParts();
      nics.reserve(parts.size());
      for (uint64_t nic = 0; nic < parts.size(); ++nic) {
         nics.push_back(
            new PhysicalNicImpl(_state.GetNics()[nic], {_state.GetTimeSec(), parts[nic]}));
      }
      return nics;
   }
   int64_t GetSumCorrectionKb() override { return _state.GetRemovedNicsKb(); }

private:
   const SimState& _state;
};

class CpuImpl : public HostCtl::Hardware::Cpu {
public:
   uint64_t GetSpeedHz() override { return kCpuSpeedHz; }
};

class CpuInfoImpl : public HostCtl::Hardware::CpuInfo {
public:
   explicit CpuInfoImpl(const SimState& state) : _state(state) {}

   uint32_t GetCoreCount() override { return static_cast<uint32_t>(_state.GetOptions().cpus); }
   std::vector<HostCtl::Hardware::Cpu*> GetCpus() override
   {
      std::vector<HostCtl::Hardware::Cpu*> cpus(_state.GetOptions().cpus);
      for (HostCtl::Hardware::Cpu*& cpu : cpus) {
         cpu = new CpuImpl;
      }
      return cpus;
   }

private:
   const SimState& _state;
};

class MemoryInfoImpl : public HostCtl::Hardware::MemoryInfo {
public:
   explicit MemoryInfoImpl(const SimState& state) : _state(state) {}

   uint64_t GetPhysicalBytes() override { return GetPhysicalKb(_state.GetOptions().cpus) << 10; }

private:
   const SimState& _state;
};

class HardwareInfoImpl : public HostCtl::Hardware::HardwareInfo {
public:
   explicit HardwareInfoImpl(const SimState& state) : _state(state) {}

   HostCtl::Hardware::CpuInfo* GetCpuInfo() override { return new CpuInfoImpl(_state); }
   HostCtl::Hardware::MemoryInfo* GetMemoryInfo() override { return new MemoryInfoImpl(_state); }

private:
   const SimState& _state;
};

class HostImpl : public HostCtl::Host {
public:
   explicit HostImpl(const SimState& state) : _state(state) {}

   HostCtl::Resource::ResourceInfo* GetResourceInfo() override
   {
      return new ResourceInfoImpl(_state);
   }
   HostCtl::Storage::StorageInfo* GetStorageInfo() override { return new StorageInfoImpl(_state); }
   HostCtl::Network::NetworkInfo* GetNetworkInfo() override { return new NetworkInfoImpl(_state); }
   HostCtl::Hardware::HardwareInfo* GetHardwareInfo() override
   {
      return new HardwareInfoImpl(_state);
   }

private:
   const SimState& _state;
};

} // namespace

HostCtl::Host* NewHost(const SimState& state)
{
   return new HostImpl(state);
}

HostCtl::Network::Port* NewCardPort(const SimState& state, uint32_t portId)
{
   const SimState::Card card = state.FindCard(portId);
   if (card.vm == nullptr) {
      return nullptr;
   }
   if (card.vm->isFailing) {
      return new FailingPort(portId);
   }
   const VmShape& vm = *card.vm;
   return new PortImpl(
      GetPort(vm.key.Part(card.index), {state.GetVmTimeSec(), vm.cards[card.index]}));
}

} // namespace SimHost
