#pragma once

#include <string>

/// Figures of a process as the kernel reports them. `process` is a process id or "self".
///
/// Errors: an exception where the kernel does not report them.
namespace Bench {

/// Read and write calls since the process's start and the bytes they moved (/proc/PID/io). Work on
/// mapped files does not appear.
struct IoCounts {
   double calls = 0;
   double bytes = 0;
   double deviceBytes = 0; ///< to the disk: pages that became dirty, less those cut off since

   static IoCounts Read(const std::string& process);
   IoCounts operator-(const IoCounts& before) const
   {
      return {calls - before.calls, bytes - before.bytes, deviceBytes - before.deviceBytes};
   }
};

/// Factor from the bytes of so many seconds to gigabytes a day.
constexpr double GetGbPerDay(unsigned seconds)
{
   return 86400.0 / seconds / 1e9;
}

/// Bytes that the block device of the directory's file system has written.
double GetDeviceBytes(const std::string& directory);

/// Resident memory without the pages of mapped files, MiB (/proc/PID/status).
double GetResidentMib(const std::string& process);

/// CPU time of all live threads, microseconds (schedstat).
double GetThreadsCpuUs(const std::string& process);

} // namespace Bench
