#include "corvax/lockFile.h"

#include "corvax/exception.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace Corvax {

namespace {

constexpr int kAttempts = 5;
constexpr std::chrono::milliseconds kRetryDelay{10};

std::string ReadHolder(int descriptor)
{
   char text[16];
   const ssize_t size = ::pread(descriptor, text, sizeof text, 0);
   return size > 0 ? std::string(text, static_cast<size_t>(size)) : "unknown";
}

} // namespace

LockFile::LockFile(const std::string& path)
   : _descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644))
{
   if (!_descriptor) {
      throw PlatformException("open " + path + " for writing", errno);
   }
   // Retried for a moment, because GetHolder takes the lock to look.
   int reason = 0;
   for (int attempt = 0; attempt < kAttempts; ++attempt) {
      reason = ::flock(_descriptor.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
      if (reason != EWOULDBLOCK) {
         break;
      }
      std::this_thread::sleep_for(kRetryDelay);
   }
   if (reason != 0) {
      const std::string holder = ReadHolder(_descriptor.Get());
      if (reason != EWOULDBLOCK) {
         throw PlatformException("lock " + path, reason);
      }
      throw Exception(path + " is locked: process " + holder +
                      " is using the directory; stop it or use another directory");
   }
   // The process id is for the message above only: a failure to write it does no harm.
   const std::string pid = std::to_string(::getpid());
   [[maybe_unused]] const int cut = ::ftruncate(_descriptor.Get(), 0);
   [[maybe_unused]] const ssize_t written = ::pwrite(_descriptor.Get(), pid.data(), pid.size(), 0);
}

int64_t LockFile::GetHolder(const std::string& path)
{
   const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
   if (!file || ::flock(file.Get(), LOCK_SH | LOCK_NB) == 0) {
      return 0;
   }
   return std::strtoll(ReadHolder(file.Get()).c_str(), nullptr, 10);
}

} // namespace Corvax
