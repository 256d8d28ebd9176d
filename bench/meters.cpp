#include "bench/meters.h"

#include "corvax/descriptor.h"
#include "corvax/system.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <vector>

namespace Bench {

namespace {

constexpr int64_t kMinFlushBytes = 64 << 20; // in case the cache's size is unknown
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

double GetThreadCpuUs()
{
   return GetClockUs(CLOCK_THREAD_CPUTIME_ID);
}

double GetWallUs()
{
   return GetClockUs(CLOCK_MONOTONIC);
}

void FlushCpuCaches()
{
   static std::vector<uint8_t> buffer(
      static_cast<size_t>(std::max<int64_t>(2 * ::sysconf(_SC_LEVEL3_CACHE_SIZE), kMinFlushBytes)));
   for (size_t i = 0; i < buffer.size(); i += kCacheLineBytes) {
      volatile uint8_t& line = buffer[i];
      line = static_cast<uint8_t>(line + 1);
   }
}

void SyncFiles(const std::string& directory)
{
   for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      const auto file = Corvax::System::GetFactory().NewFileHandle();
      file->Open(entry.path(), Corvax::FILE_READ, Corvax::FileCreation::OPEN_EXISTING);
      file->Flush();
   }
}

void SyncFileSystem(const std::string& directory)
{
   const Corvax::Descriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   ::syncfs(opened.Get());
}

} // namespace Bench
