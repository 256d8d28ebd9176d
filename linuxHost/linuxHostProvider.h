#pragma once

#include "corvax/logger.h"
#include "hostctl/host.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace LinuxHost {

struct LinuxHostOptions {
   /// Goes before the path of every kernel file: empty for this machine, else a directory that
   /// holds a tree of such files ("ROOT/proc/stat").
   std::string root;
   /// Physical NICs by name. Empty: those with a device behind them, else all but the loopback.
   std::vector<std::string> nics;
   /// Speed of one CPU. 0: as the kernel tells it, which not every machine's does.
   uint32_t cpuMhz = 0;
};

/// What virtual machines and groups add to the host's figures. Any thread may ask.
class HostAddenda {
public:
   virtual ~HostAddenda() = default;
   /// Traffic by the host's disk that it goes to; names that are no disk of the host become disks
   /// of their own, without traffic of the host itself.
   virtual std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>>
   GetDiskWorlds() = 0;
   virtual std::optional<HostCtl::Network::PortStatistics> FindPort(uint32_t portId) = 0;
   virtual std::optional<HostCtl::Resource::CpuLoadHistory> GetHostLoad() = 0;
};

/// This Linux machine's figures, from procfs and sysfs; docs/operations.md says which file gives
/// which. Nothing is read before it is asked for; a list of disks or NICs is read whole, and its
/// elements keep the figures of that reading.
///
/// Ownership: a reference on the logger is taken; null for none. The addenda, null for none,
/// outlive the provider. Locking: any thread may ask; one at a time is served. Errors:
/// HostCtl::Lib::HostCtlException from this and from every operation.
std::unique_ptr<HostCtl::HostProvider>
NewLinuxHostProvider(LinuxHostOptions options, HostAddenda* addenda, Corvax::Logger* logger);

} // namespace LinuxHost
