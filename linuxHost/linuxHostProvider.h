#pragma once

#include "hostctl/host.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace LinuxHost {

struct LinuxHostOptions {
   /// Goes before the path of every kernel file: empty for this machine, else a directory that
   /// contains a tree of such files ("ROOT/proc/stat").
   std::string root;
   /// Names of the physical NICs. Empty: those with a device, else all but the loopback.
   std::vector<std::string> nics;
   /// Speed of one CPU. 0: the kernel's figure, which not every machine has.
   uint32_t cpuMhz = 0;
};

/// Figures that virtual machines and control groups add to the host's. Any thread may call.
class ExtraFigures {
public:
   virtual ~ExtraFigures() = default;
   /// Traffic of the virtual machines by the name of the host's disk. Any other name becomes a disk
   /// of its own, without traffic of the host.
   virtual std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>>
   GetDiskWorlds() = 0;
   virtual std::optional<HostCtl::Network::PortStatistics> FindPort(uint32_t portId) = 0;
   virtual std::optional<HostCtl::Resource::CpuLoadHistory> GetHostLoad() = 0;
};

/// Reads this Linux machine's figures from procfs and sysfs; docs/operations.md lists the source of
/// each. Nothing is read in advance; a list of disks or NICs is read as a whole, and its elements
/// keep those figures.
///
/// Ownership: `extra`, null for none, outlives the provider. Locking: any thread may call; calls
/// are serialised. Errors: HostCtl::Lib::HostCtlException from this and from every operation.
std::unique_ptr<HostCtl::HostProvider> NewLinuxHostProvider(LinuxHostOptions options,
                                                            ExtraFigures* extra);

} // namespace LinuxHost
