#include "bench/meters.h"

#include "corvax/exception.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

namespace Bench {

namespace {

constexpr int64_t kSmallestFlushBytes = 64 << 20; // where the cache's size is not told
constexpr size_t kCacheLineBytes = 64;

double GetClockUs(clockid_t clock)
{
   timespec now = {};
   ::clock_gettime(clock, &now);
   return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

} // namespace

double GetProcessCpuUs()
{
   return GetClockUs(CLOCK_PROCESS_CPUTIME_ID);
}

double GetWallUs()
{
   return GetClockUs(CLOCK_MONOTONIC);
}

IoCounts IoCounts::Read(const std::string& process)
{
   const std::string path = "/proc/" + process + "/io";
   std::ifstream file(path);
   IoCounts counts;
   std::string name;
   double value = 0;
   bool isCounted = false;
   while (file >> name >> value) {
      if (name == "syscr:" || name == "syscw:") {
         counts.calls += value;
         isCounted = true;
      } else if (name == "rchar:" || name == "wchar:") {
         counts.bytes += value;
      }
   }
   if (!isCounted) {
      throw Corvax::Exception("Cannot read system calls from " + path);
   }
   return counts;
}

void FlushCpuCaches()
{
   static std::vector<uint8_t> buffer(static_cast<size_t>(
      std::max<int64_t>(2 * ::sysconf(_SC_LEVEL3_CACHE_SIZE), kSmallestFlushBytes)));
   for (size_t i = 0; i < buffer.size(); i += kCacheLineBytes) {
      volatile uint8_t& line = buffer[i];
      line = static_cast<uint8_t>(line + 1);
   }
}

void SyncFiles(const std::string& directory)
{
   for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      const int file = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
      if (file >= 0) {
         ::fdatasync(file);
         ::close(file);
      }
   }
}

} // namespace Bench
