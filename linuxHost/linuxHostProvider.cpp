#include "linuxHost/linuxHostProvider.h"

#include "corvax/format.h"
#include "linuxHost/kernel/cpuReader.h"
#include "linuxHost/kernel/diskReader.h"
#include "linuxHost/kernel/hardwareReader.h"
#include "linuxHost/kernel/memoryReader.h"
#include "linuxHost/kernel/nicReader.h"
#include "linuxHost/kernel/units.h"
#include "linuxHost/steadySum.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

namespace LinuxHost {

namespace {

/// Runs the operation and turns any exception into HostCtlException. bad_alloc has its own handler,
/// whose message is short enough to need no memory.
template <class Operation>
auto Translated(const Operation& operation)
{
   try {
      return operation();
   } catch (const HostCtl::Lib::HostCtlException&) {
      throw;
   } catch (const std::bad_alloc&) {
      throw HostCtl::Lib::HostCtlException("Out of memory");
   } catch (const std::exception& failure) {
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Cannot read a figure of the host: %1", failure.what()));
   }
}

/// All readers of kernel files. Locking: the mutex protects the readers; only the logger's lock is
/// taken under it.
struct Readers {
   Readers(LinuxHostOptions options, ExtraFigures* extraFigures)
      : extra(extraFigures), cpu(options.root), memory(options.root), disks(options.root),
        nics(options.root, std::move(options.nics)), hardware(options.root, options.cpuMhz)
   {
   }

   /// Runs an operation on the readers under the mutex and translates its exceptions.
   template <class Operation>
   auto Use(const Operation& operation)
   {
      return Translated([&] {
         const std::lock_guard guard(mutex);
         return operation(*this);
      });
   }

   ExtraFigures* const extra; // has its own locks
   std::mutex mutex;
   CpuReader cpu;
   MemoryReader memory;
   DiskReader disks;
   NicReader nics;
   HardwareReader hardware;
   SteadySum diskSum; // KB of all disks
   SteadySum nicSum;  // KB of all NICs
};

template <class T, class... Args>
T* New(Args&&... args)
{
   return Translated([&] { return new T(std::forward<Args>(args)...); });
}

/// Creates an object for each of `sources`; the caller owns them.
template <class Interface, class T, class Source>
std::vector<Interface*> NewEach(std::vector<Source> sources)
{
   return Translated([&] {
      std::vector<std::unique_ptr<T>> owned;
      owned.reserve(sources.size());
      for (Source& source : sources) {
         owned.push_back(std::make_unique<T>(std::move(source)));
      }
      std::vector<Interface*> handedOut(owned.size());
      for (size_t i = 0; i < owned.size(); ++i) {
         handedOut[i] = owned[i].release();
      }
      return handedOut;
   });
}

class RootGroupImpl : public HostCtl::Resource::ResourceGroup {
public:
   explicit RootGroupImpl(const Readers& readers) : _readers(readers) {}

   HostCtl::Resource::CpuLoadHistory* GetCpuLoadHistory() override
   {
      return Translated([this]() -> HostCtl::Resource::CpuLoadHistory* {
         const auto load = _readers.extra ? _readers.extra->GetHostLoad() : std::nullopt;
         return load ? new HostCtl::Resource::CpuLoadHistory(*load) : nullptr;
      });
   }

private:
   const Readers& _readers;
};

class ResourceInfoImpl : public HostCtl::Resource::ResourceInfo {
public:
   explicit ResourceInfoImpl(Readers& readers) : _readers(readers) {}

   std::vector<HostCtl::Resource::HostCpuStats> GetCpuStats() override
   {
      return _readers.Use([](Readers& readers) { return readers.cpu.ReadCpuStats(); });
   }
   uint64_t GetUptimeUs() override
   {
      return _readers.Use([](Readers& readers) { return readers.cpu.ReadUptimeUs(); });
   }
   HostCtl::Resource::HostCapacity GetCapacity() override
   {
      return _readers.Use([](Readers& readers) { return readers.memory.ReadCapacity(); });
   }
   HostCtl::Resource::HostMemoryStats GetMemoryStats() override
   {
      return _readers.Use([](Readers& readers) { return readers.memory.ReadMemoryStats(); });
   }
   HostCtl::Resource::ResourceGroup* GetRootGroup() override
   {
      return New<RootGroupImpl>(_readers);
   }

private:
   Readers& _readers;
};

/// A disk, with each virtual machine's part of its traffic.
struct Lun {
   DiskFigures figures;
   std::vector<HostCtl::Storage::WorldStatistics> worlds;
};

class DiskLunImpl : public HostCtl::Storage::DiskLun {
public:
   explicit DiskLunImpl(Lun lun) : _figures(std::move(lun.figures)), _worlds(std::move(lun.worlds))
   {
   }

   std::string GetScsiName() override
   {
      return Translated([this] { return _figures.name; });
   }
   uint64_t GetBlockSizeBytes() override { return kBlockSizeBytes; }
   HostCtl::Storage::StorageStatistics GetStatistics() override { return _figures.statistics; }
   std::vector<HostCtl::Storage::WorldStatistics> GetWorldStatistics() override { return _worlds; }

private:
   const DiskFigures _figures;
   const std::vector<HostCtl::Storage::WorldStatistics> _worlds;
};

class StorageInfoImpl : public HostCtl::Storage::StorageInfo {
public:
   explicit StorageInfoImpl(Readers& readers) : _readers(readers) {}

   std::vector<HostCtl::Storage::DiskLun*> GetDiskLuns() override
   {
      std::vector<Lun> luns = FindLuns();
      SteadySum::Counters readings;
      for (const Lun& lun : luns) {
         const HostCtl::Storage::StorageStatistics& disk = lun.figures.statistics;
         readings[lun.figures.name] = disk.blocksRead * kBlockSizeBytes / kBytesPerKb +
                                      disk.blocksWritten * kBlockSizeBytes / kBytesPerKb;
      }
      _sumCorrectionKb = _readers.Use([&readings](Readers& readers) {
         return readers.diskSum.GetCorrection(std::move(readings));
      });
      return NewEach<HostCtl::Storage::DiskLun, DiskLunImpl>(std::move(luns));
   }
   int64_t GetSumCorrectionKb() override { return _sumCorrectionKb; }

private:
   std::vector<Lun> FindLuns()
   {
      std::vector<Lun> luns;
      for (DiskFigures& disk :
           _readers.Use([](Readers& readers) { return readers.disks.ReadDisks(); })) {
         luns.push_back({std::move(disk), {}});
      }
      return Translated([&] {
         if (_readers.extra == nullptr) {
            return luns;
         }
         for (auto& [name, worlds] : _readers.extra->GetDiskWorlds()) {
            const auto byName = [](const Lun& lun) -> const std::string& {
               return lun.figures.name;
            };
            auto lun = std::ranges::find(luns, name, byName);
            if (lun == luns.end()) {
               lun = luns.insert(luns.end(), Lun{DiskFigures{name, {}}, {}});
            }
            lun->worlds = worlds;
         }
         return luns;
      });
   }

   Readers& _readers;
   int64_t _sumCorrectionKb = 0;
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

class PhysicalNicImpl : public HostCtl::Network::PhysicalNic {
public:
   explicit PhysicalNicImpl(NicFigures figures) : _figures(std::move(figures)) {}

   std::string GetName() override
   {
      return Translated([this] { return _figures.name; });
   }
   HostCtl::Network::Port* GetUplinkPort() override
   {
      return _figures.statistics ? New<PortImpl>(*_figures.statistics) : nullptr;
   }

private:
   const NicFigures _figures;
};

class NetworkInfoImpl : public HostCtl::Network::NetworkInfo {
public:
   explicit NetworkInfoImpl(Readers& readers) : _readers(readers) {}

   std::vector<HostCtl::Network::PhysicalNic*> GetPhysicalNics() override
   {
      return NewEach<HostCtl::Network::PhysicalNic, PhysicalNicImpl>(
         _readers.Use([this](Readers& readers) {
            std::vector<NicFigures> nics = readers.nics.ReadNics();
            SteadySum::Counters readings;
            for (const NicFigures& nic : nics) {
               if (nic.statistics) {
                  readings[nic.name] = nic.statistics->bytesReceived / kBytesPerKb +
                                       nic.statistics->bytesSent / kBytesPerKb;
               }
            }
            _sumCorrectionKb = readers.nicSum.GetCorrection(std::move(readings));
            return nics;
         }));
   }
   int64_t GetSumCorrectionKb() override { return _sumCorrectionKb; }

private:
   Readers& _readers;
   int64_t _sumCorrectionKb = 0;
};

class CpuImpl : public HostCtl::Hardware::Cpu {
public:
   explicit CpuImpl(uint64_t speedHz) : _speedHz(speedHz) {}

   uint64_t GetSpeedHz() override { return _speedHz; }

private:
   const uint64_t _speedHz;
};

class CpuInfoImpl : public HostCtl::Hardware::CpuInfo {
public:
   explicit CpuInfoImpl(Readers& readers) : _readers(readers) {}

   uint32_t GetCoreCount() override
   {
      return _readers.Use([](Readers& readers) { return readers.hardware.ReadCoreCount(); });
   }
   std::vector<HostCtl::Hardware::Cpu*> GetCpus() override
   {
      return NewEach<HostCtl::Hardware::Cpu, CpuImpl>(_readers.Use([](Readers& readers) {
         const uint64_t speedHz = readers.hardware.ReadCpuSpeedHz();
         return std::vector<uint64_t>(readers.hardware.ReadCoreCount(), speedHz);
      }));
   }

private:
   Readers& _readers;
};

class MemoryInfoImpl : public HostCtl::Hardware::MemoryInfo {
public:
   explicit MemoryInfoImpl(Readers& readers) : _readers(readers) {}

   uint64_t GetPhysicalBytes() override
   {
      return _readers.Use([](Readers& readers) { return readers.memory.ReadPhysicalBytes(); });
   }

private:
   Readers& _readers;
};

class HardwareInfoImpl : public HostCtl::Hardware::HardwareInfo {
public:
   explicit HardwareInfoImpl(Readers& readers) : _readers(readers) {}

   HostCtl::Hardware::CpuInfo* GetCpuInfo() override { return New<CpuInfoImpl>(_readers); }
   HostCtl::Hardware::MemoryInfo* GetMemoryInfo() override { return New<MemoryInfoImpl>(_readers); }

private:
   Readers& _readers;
};

class HostImpl : public HostCtl::Host {
public:
   explicit HostImpl(Readers& readers) : _readers(readers) {}

   HostCtl::Resource::ResourceInfo* GetResourceInfo() override
   {
      return New<ResourceInfoImpl>(_readers);
   }
   HostCtl::Storage::StorageInfo* GetStorageInfo() override
   {
      return New<StorageInfoImpl>(_readers);
   }
   HostCtl::Network::NetworkInfo* GetNetworkInfo() override
   {
      return New<NetworkInfoImpl>(_readers);
   }
   HostCtl::Hardware::HardwareInfo* GetHardwareInfo() override
   {
      return New<HardwareInfoImpl>(_readers);
   }

private:
   Readers& _readers;
};

class LinuxHostProviderImpl : public HostCtl::HostProvider {
public:
   LinuxHostProviderImpl(LinuxHostOptions options, ExtraFigures* extra)
      : _readers(std::move(options), extra)
   {
   }

   HostCtl::Host* GetHost() override { return New<HostImpl>(_readers); }
   HostCtl::Network::Port* GetPort(uint32_t portId) override
   {
      return Translated([&]() -> HostCtl::Network::Port* {
         const auto figures = _readers.extra ? _readers.extra->FindPort(portId) : std::nullopt;
         return figures ? new PortImpl(*figures) : nullptr;
      });
   }

private:
   Readers _readers;
};

} // namespace

std::unique_ptr<HostCtl::HostProvider> NewLinuxHostProvider(LinuxHostOptions options,
                                                            ExtraFigures* extra)
{
   return Translated([&]() -> std::unique_ptr<HostCtl::HostProvider> {
      return std::make_unique<LinuxHostProviderImpl>(std::move(options), extra);
   });
}

} // namespace LinuxHost
