#pragma once

#include "linuxHost/kernel/controlGroups.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace LinuxHost {

/// Time in which limits inside a virtual machine's group stopped it: libvirt limits virtual CPUs,
/// I/O threads and the emulator in groups of their own, whose figures the kernel does not add to
/// that of the group around them. The sum over these groups: as with CPU time, two virtual CPUs
/// that are stopped for a second are two seconds.
///
/// Invariant: the sum never decreases, and no group brings time from before it was found.
/// Cost: the files of the limited groups; the groups are searched in every tenth reading, so that a
/// new limit counts after a minute at most.
/// Locking: none; one thread at a time.
class LimitedTime {
public:
   /// Errors: HostCtl::Lib::HostCtlException.
   uint64_t ReadUs(ControlGroups& groups, const std::string& vmPath);

private:
   uint64_t _readings = 0;
   uint64_t _totalUs = 0;
   std::map<std::string, std::optional<uint64_t>> _lastUs; // by the group's path
};

} // namespace LinuxHost
