#include "linuxHost/kernel/kernelFile.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/procParsers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

constexpr size_t kFirstBufferBytes = 512;

bool MeansAbsent(int errorNumber)
{
   return errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == ENODEV ||
          errorNumber == ENXIO || errorNumber == ESRCH;
}

} // namespace

KernelFile::KernelFile(std::string path) : _path(std::move(path)) {}

std::string_view KernelFile::Read()
{
   if (const int errorNumber = TryRead()) {
      Fail(errorNumber);
   }
   return {_buffer.data(), _sizeBytes};
}

std::optional<std::string_view> KernelFile::ReadIfPresent()
{
   const int errorNumber = TryRead();
   if (MeansAbsent(errorNumber)) {
      return std::nullopt;
   }
   if (errorNumber != 0) {
      Fail(errorNumber);
   }
   return std::string_view(_buffer.data(), _sizeBytes);
}

std::optional<uint64_t> KernelFile::ReadNumberIfPresent()
{
   return ParseNumberFile(ReadIfPresent().value_or(""));
}

void KernelFile::FailLacking(std::string_view what) const
{
   throw HostCtl::Lib::HostCtlException(Corvax::Format("Cannot find %1 in %2", what, _path));
}

/// Returns an errno, 0 for success. A descriptor that fails may belong to a device that went away
/// and came back: the path is opened once more.
int KernelFile::TryRead()
{
   if (_descriptor) {
      if (ReadAll() == 0) {
         return 0;
      }
      _descriptor = Corvax::Descriptor();
   }
   return OpenAndReadAll();
}

int KernelFile::OpenAndReadAll()
{
   _descriptor = Corvax::Descriptor(::open(_path.c_str(), O_RDONLY | O_CLOEXEC));
   const int errorNumber = _descriptor ? ReadAll() : errno;
   if (errorNumber != 0) {
      _descriptor = Corvax::Descriptor();
   }
   return errorNumber;
}

/// Reads until nothing is left: a short read is not yet the end of a kernel file.
int KernelFile::ReadAll()
{
   _sizeBytes = 0;
   for (;;) {
      if (_sizeBytes == _buffer.size()) {
         _buffer.resize(_buffer.empty() ? kFirstBufferBytes : _buffer.size() * 2);
      }
      const ssize_t count = ::pread(_descriptor.Get(), _buffer.data() + _sizeBytes,
                                    _buffer.size() - _sizeBytes, static_cast<off_t>(_sizeBytes));
      if (count == 0) {
         return 0;
      }
      if (count > 0) {
         _sizeBytes += static_cast<size_t>(count);
      } else if (errno != EINTR) {
         return errno;
      }
   }
}

void KernelFile::Fail(int errorNumber) const
{
   throw HostCtl::Lib::HostCtlException(
      Corvax::Format("Cannot read %1: %2", _path, std::generic_category().message(errorNumber)));
}

} // namespace LinuxHost
