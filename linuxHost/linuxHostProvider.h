#pragma once

#include "corvax/logger.h"
#include "hostctl/host.h"

#include <memory>
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

/// This Linux machine's figures, from procfs and sysfs; docs/operations.md says which file gives
/// which. Nothing is read before it is asked for; a list of disks or NICs is read whole, and its
/// elements keep the figures of that reading.
///
/// Ownership: a reference on the logger is taken; null for none.
/// Locking: any thread may ask; one at a time is served.
/// Errors: HostCtl::Lib::HostCtlException from this and from every operation.
std::unique_ptr<HostCtl::HostProvider> NewLinuxHostProvider(LinuxHostOptions options,
                                                            Corvax::Logger* logger);

} // namespace LinuxHost
