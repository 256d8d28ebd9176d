#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Bench {

// Microseconds. CPU time is user and system time together.
double GetProcessCpuUs();
double GetWallUs();

/// Adds up what the process uses between pairs of Start and Stop.
class CpuMeter {
public:
   void Start() { _startUs = GetProcessCpuUs(); }
   void Stop() { _totalUs += GetProcessCpuUs() - _startUs; }
   double GetTotalUs() const { return _totalUs; }

private:
   double _startUs = 0;
   double _totalUs = 0;
};

/// Read and write calls of a process and the bytes they moved, since its start, as the kernel
/// counts them in /proc/PID/io: work on mapped files does not appear.
struct IoCounts {
   double calls = 0;
   double bytes = 0;

   /// `process` is a process id or "self". Exception of the runtime where the kernel does not tell.
   static IoCounts Read(const std::string& process);
   IoCounts operator-(const IoCounts& before) const
   {
      return {calls - before.calls, bytes - before.bytes};
   }
};

/// Makes the next access to anything in the working set miss the CPU's caches, by walking a buffer
/// of twice the last level's size.
void FlushCpuCaches();

/// Brings all files of the directory to the disk, so that their pages are clean.
void SyncFiles(const std::string& directory);

} // namespace Bench
