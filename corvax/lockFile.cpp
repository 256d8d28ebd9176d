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
   if (_descriptor < 0) {
      throw PlatformException("open " + path + " for writing", errno);
   }
   if (::flock(_descriptor, LOCK_EX | LOCK_NB) != 0) {
      const int reason = errno;
      const std::string holder = ReadHolder(_descriptor);
      ::close(_descriptor);
      if (reason != EWOULDBLOCK) {
         throw PlatformException("lock " + path, reason);
      }
      throw Exception(path + " is locked: process " + holder +
                      " is at work there; stop it or use another directory");
   }
   // The id only serves the message above: a failure to write it changes nothing.
   const std::string pid = std::to_string(::getpid());
   [[maybe_unused]] const int cut = ::ftruncate(_descriptor, 0);
   [[maybe_unused]] const ssize_t written = ::pwrite(_descriptor, pid.data(), pid.size(), 0);
}

LockFile::~LockFile()
{
   ::close(_descriptor);
}

} // namespace Corvax
