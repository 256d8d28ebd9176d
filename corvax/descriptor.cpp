#include "corvax/descriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <mutex>
#include <vector>

namespace Corvax {

namespace {

std::mutex reserveMutex;
std::vector<Descriptor> reserve;         // protected by the mutex
std::atomic<bool> isReserveShort{false}; // some of its descriptors were given back

/// False when the reserve is empty.
bool GiveBackOne()
{
   const std::lock_guard guard(reserveMutex);
   if (reserve.empty()) {
      return false;
   }
   reserve.pop_back();
   isReserveShort = true;
   return true;
}

} // namespace

Descriptor::~Descriptor()
{
   if (_number >= 0) {
      ::close(_number);
   }
}

size_t GetDescriptorLimit()
{
   rlimit limit = {};
   ::getrlimit(RLIMIT_NOFILE, &limit); // cannot fail with these arguments
   return static_cast<size_t>(std::min<uint64_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
}

DescriptorShares GetDescriptorShares()
{
   const size_t limit = GetDescriptorLimit();
   const size_t half = limit > kOtherDescriptors ? (limit - kOtherDescriptors) / 2 : 0;
   return {half, half};
}

BriefDescriptor::~BriefDescriptor()
{
   if (_descriptor) {
      const int errorNumber = errno; // that of the caller's last operation
      _descriptor = Descriptor();
      if (isReserveShort) {
         FillDescriptorReserve();
      }
      errno = errorNumber;
   }
}

BriefDescriptor OpenBriefly(const char* path, int flags)
{
   for (;;) {
      Descriptor opened(::open(path, flags | O_CLOEXEC));
      const int errorNumber = errno;
      const bool isLimit = errorNumber == EMFILE || errorNumber == ENFILE;
      // Another thread may be faster than the next open: then it takes the next one.
      if (opened || !isLimit || !GiveBackOne()) {
         errno = errorNumber;
         return BriefDescriptor(std::move(opened));
      }
   }
}

void FillDescriptorReserve()
{
   const std::lock_guard guard(reserveMutex);
   while (reserve.size() < kReservedDescriptors) {
      Descriptor one(::open("/dev/null", O_PATH | O_CLOEXEC));
      if (!one) {
         return;
      }
      reserve.push_back(std::move(one));
   }
   isReserveShort = false;
}

} // namespace Corvax
