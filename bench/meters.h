#pragma once

#include <string>

namespace Bench {

// Microseconds, with the fractions that the work under measurement needs: some calls take little
// more than one. Not the runtime's clock, which SteppedTime replaces.
/// User and system time of the process.
double GetProcessCpuUs();
/// The same of the calling thread.
double GetThreadCpuUs();
double GetWallUs();

/// Adds up the process's CPU time between pairs of Start and Stop.
class CpuMeter {
public:
   void Start() { _startUs = GetProcessCpuUs(); }
   void Stop() { _totalUs += GetProcessCpuUs() - _startUs; }
   double GetTotalUs() const { return _totalUs; }

private:
   double _startUs = 0;
   double _totalUs = 0;
};

/// Empties the CPU's caches of the working set, by walking a buffer of twice the last level's size.
void FlushCpuCaches();

/// Writes all files of the directory to the disk, so that their pages are clean.
void SyncFiles(const std::string& directory);
/// The same for all files, and its own data, of the file system that has the directory.
void SyncFileSystem(const std::string& directory);

} // namespace Bench
