#include "corvax/lockFile.h"

#include "corvax/exception.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace Corvax {

namespace {

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
   if (::flock(_descriptor.Get(), LOCK_EX | LOCK_NB) != 0) {
      const int reason = errno;
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

} // namespace Corvax
