#include "linuxHost/kernel/kernelFile.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/procParsers.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

constexpr size_t kFirstBufferBytes = 512;
constexpr size_t kHalfPageBytes = 2048;

bool MeansAbsent(int errorNumber)
{
   return errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == ENODEV ||
          errorNumber == ENXIO || errorNumber == ESRCH;
}

bool MeansRefused(int errorNumber)
{
   return errorNumber == EACCES || errorNumber == EPERM;
}

std::atomic<size_t> keptCount{0};

} // namespace

void FailReading(const std::string& path, int errorNumber)
{
   std::string reason = std::generic_category().message(errorNumber);
   if (errorNumber == EMFILE) {
      reason += Corvax::Format("; the limit is %1 (LimitNOFILE of the agent's unit, ulimit -n)",
                               Corvax::GetDescriptorLimit());
   }
   throw HostCtl::Lib::HostCtlException(Corvax::Format("Cannot read %1: %2", path, reason));
}

void KeptDescriptor::Keep(Corvax::Descriptor descriptor)
{
   Close();
   // Two threads at once may exceed the share by one each, which does no harm.
   if (descriptor && keptCount < Corvax::GetDescriptorShares().keptFiles) {
      _descriptor = std::move(descriptor);
      ++keptCount;
   }
}

void KeptDescriptor::Close()
{
   if (_descriptor) {
      _descriptor = Corvax::Descriptor();
      --keptCount;
   }
}

size_t KeptDescriptor::GetCount()
{
   return keptCount;
}

KernelFile::KernelFile(std::string path) : _path(std::move(path)) {}

std::string_view KernelFile::Read()
{
   if (const int errorNumber = TryRead()) {
      FailReading(_path, errorNumber);
   }
   return {_buffer.data(), _sizeBytes};
}

std::optional<std::string_view> KernelFile::ReadIfPresent()
{
   const int errorNumber = TryRead();
   if (errorNumber != 0 && !MeansAbsent(errorNumber)) {
      FailReading(_path, errorNumber);
   }
   return errorNumber == 0 ? std::optional(std::string_view(_buffer.data(), _sizeBytes))
                           : std::nullopt;
}

std::optional<std::string_view> KernelFile::ReadIfPermitted()
{
   const int errorNumber = TryRead();
   if (errorNumber != 0 && !MeansAbsent(errorNumber) && !MeansRefused(errorNumber)) {
      FailReading(_path, errorNumber);
   }
   return errorNumber == 0 ? std::optional(std::string_view(_buffer.data(), _sizeBytes))
                           : std::nullopt;
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
      if (ReadAll(_descriptor.Get()) == 0) {
         return 0;
      }
      _descriptor.Close();
   }
   return OpenAndReadAll();
}

int KernelFile::OpenAndReadAll()
{
   Corvax::Descriptor descriptor(::open(_path.c_str(), O_RDONLY | O_CLOEXEC));
   if (!descriptor && (errno == EMFILE || errno == ENFILE)) {
      const Corvax::BriefDescriptor brief = Corvax::OpenBriefly(_path.c_str(), O_RDONLY);
      return brief ? ReadAll(brief.Get()) : errno;
   }
   const int errorNumber = descriptor ? ReadAll(descriptor.Get()) : errno;
   if (errorNumber == 0) {
      _descriptor.Keep(std::move(descriptor));
   }
   return errorNumber;
}

/// Reads until nothing is left. A short read is not yet the end: the kernel makes a file's text in
/// pages, and what does not fit into one comes with the next read. Of a page that is half empty,
/// though, nothing was left out, because no line is that long; this saves a second read.
int KernelFile::ReadAll(int descriptor)
{
   _sizeBytes = 0;
   for (;;) {
      if (_sizeBytes == _buffer.size()) {
         _buffer.resize(_buffer.empty() ? kFirstBufferBytes : _buffer.size() * 2);
      }
      const size_t wanted = _buffer.size() - _sizeBytes;
      const ssize_t count =
         ::pread(descriptor, _buffer.data() + _sizeBytes, wanted, static_cast<off_t>(_sizeBytes));
      if (count == 0) {
         return 0;
      }
      if (count > 0) {
         const auto got = static_cast<size_t>(count);
         _sizeBytes += got;
         if (got < wanted && got < kHalfPageBytes) {
            return 0;
         }
      } else if (errno != EINTR) {
         return errno;
      }
   }
}

} // namespace LinuxHost
