#include "corvax/file.h"

#include "corvax/exception.h"

#include <fcntl.h>
#include <linux/aio_abi.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

namespace Corvax {

namespace {

/// Native asynchronous I/O. For files in the page cache it is synchronous: one system call carries
/// out a list of writes in order.
class WriteQueue {
public:
   static constexpr size_t kLength = 512;

   /// The only queue of the process. It is never destroyed: that takes milliseconds, and the kernel
   /// does it when the process ends.
   static WriteQueue& Get()
   {
      static WriteQueue* const queue = new WriteQueue;
      return *queue;
   }

   /// Returns the number of leading extents that were written whole, at most kLength. The caller
   /// writes the rest by other means, which also reports the error.
   size_t Write(int descriptor, std::span<const FileExtent> extents)
   {
      if (!_isOpen) {
         return 0;
      }
      const std::lock_guard guard(_mutex);
      const size_t count = std::min(extents.size(), kLength);
      for (size_t i = 0; i < count; ++i) {
         iocb& request = _requests[i];
         request = {};
         request.aio_data = i;
         request.aio_lio_opcode = IOCB_CMD_PWRITE;
         request.aio_fildes = static_cast<uint32_t>(descriptor);
         request.aio_buf = reinterpret_cast<uintptr_t>(extents[i].bytes);
         request.aio_nbytes = extents[i].sizeBytes;
         request.aio_offset = static_cast<int64_t>(extents[i].offset);
         _pointers[i] = &request;
      }
      const long submitted = ::syscall(SYS_io_submit, _context, count, _pointers.data());
      return submitted > 0 ? CountWritten(extents, static_cast<size_t>(submitted)) : 0;
   }

private:
   WriteQueue() { _isOpen = ::syscall(SYS_io_setup, kLength, &_context) == 0; }

   /// The kernel owns the requests until their events have been received.
   size_t CountWritten(std::span<const FileExtent> extents, size_t submitted)
   {
      size_t written = submitted;
      for (size_t done = 0; done < submitted;) {
         const long count =
            ::syscall(SYS_io_getevents, _context, 1, submitted - done, _events.data(), nullptr);
         if (count < 0 && errno == EINTR) {
            continue;
         }
         if (count <= 0) {
            return 0;
         }
         for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
            const size_t index = _events[i].data;
            if (_events[i].res != static_cast<int64_t>(extents[index].sizeBytes)) {
               written = std::min(written, index);
            }
         }
         done += static_cast<size_t>(count);
      }
      return written;
   }

   std::mutex _mutex;
   aio_context_t _context = 0;
   bool _isOpen = false;
   std::array<iocb, kLength> _requests = {};
   std::array<iocb*, kLength> _pointers = {};
   std::array<io_event, kLength> _events = {};
};

class PosixFileHandle : public FileHandle, public ObjectImpl {
public:
   PosixFileHandle() = default;

   void Open(const std::string& path, uint32_t accessMask, FileCreation creation) override
   {
      PosixFileHandle::Close();
      int flags = O_CLOEXEC;
      flags |= accessMask == FILE_READ ? O_RDONLY : accessMask == FILE_WRITE ? O_WRONLY : O_RDWR;
      flags |= creation == FileCreation::CREATE_ALWAYS ? O_CREAT | O_TRUNC : 0;
      _descriptor = ::open(path.c_str(), flags, 0644);
      if (_descriptor < 0) {
         const char* use = accessMask == FILE_READ ? " for reading" : " for writing";
         throw PlatformException("open " + path + use, errno);
      }
      _path = path;
      _position = 0;
   }

   bool IsOpen() const override { return _descriptor >= 0; }

   void Close() override
   {
      if (_descriptor >= 0) {
         ::close(_descriptor);
         _descriptor = -1;
      }
   }

   uint64_t GetSize() override
   {
      struct stat status{};
      if (::fstat(_descriptor, &status) != 0) {
         throw PlatformException("get the size of " + _path, errno);
      }
      return static_cast<uint64_t>(status.st_size);
   }

   void Seek(uint64_t offset) override { _position = offset; }

   size_t Read(void* buffer, size_t sizeBytes) override
   {
      size_t done = 0;
      while (done < sizeBytes) {
         const ssize_t count = ::pread(_descriptor, static_cast<char*>(buffer) + done,
                                       sizeBytes - done, static_cast<off_t>(_position));
         if (count < 0 && errno == EINTR) {
            continue;
         }
         if (count < 0) {
            throw PlatformException(Action("read", sizeBytes - done), errno);
         }
         if (count == 0) {
            break;
         }
         Advance(count, done);
      }
      return done;
   }

   size_t Write(const void* buffer, size_t sizeBytes) override
   {
      size_t done = 0;
      while (done < sizeBytes) {
         const ssize_t count = ::pwrite(_descriptor, static_cast<const char*>(buffer) + done,
                                        sizeBytes - done, static_cast<off_t>(_position));
         if (count < 0 && errno == EINTR) {
            continue;
         }
         if (count <= 0 && done > 0) {
            break;
         }
         if (count <= 0) {
            throw PlatformException(Action("write", sizeBytes), count < 0 ? errno : EIO);
         }
         Advance(count, done);
      }
      return done;
   }

   void WriteExtents(std::span<const FileExtent> extents) override
   {
      while (!extents.empty()) {
         size_t written = WriteQueue::Get().Write(_descriptor, extents);
         if (written == 0) {
            FileHandle::WriteExtents(extents.first(1));
            written = 1;
         }
         extents = extents.subspan(written);
      }
   }

   void Flush() override
   {
      if (::fdatasync(_descriptor) != 0) {
         throw PlatformException("flush " + _path + " to disk", errno);
      }
   }

private:
   ~PosixFileHandle() override { PosixFileHandle::Close(); }

   void Advance(ssize_t count, size_t& done)
   {
      done += static_cast<size_t>(count);
      _position += static_cast<uint64_t>(count);
   }

   std::string Action(const char* verb, size_t sizeBytes) const
   {
      return std::string(verb) + " " + std::to_string(sizeBytes) + " bytes at offset " +
             std::to_string(_position) + " of " + _path;
   }

   std::string _path;
   int _descriptor = -1;
   uint64_t _position = 0;
};

class PosixFactory : public SystemFactory {
public:
   Ref<FileHandle> NewFileHandle() override { return MakeRef<PosixFileHandle>(); }

   uint64_t GetFileSize(const std::string& path) override
   {
      struct stat status{};
      if (::stat(path.c_str(), &status) != 0) {
         throw PlatformException("get the size of " + path, errno);
      }
      return static_cast<uint64_t>(status.st_size);
   }

   bool Exists(const std::string& path) override
   {
      struct stat status{};
      return ::stat(path.c_str(), &status) == 0;
   }

   void CreateDirectory(const std::string& path) override
   {
      std::error_code error;
      std::filesystem::create_directories(path, error);
      if (error) {
         throw PlatformException("create directory " + path, error.value());
      }
   }

   void Rename(const std::string& from, const std::string& to) override
   {
      if (::rename(from.c_str(), to.c_str()) != 0) {
         throw PlatformException("rename " + from + " to " + to, errno);
      }
   }

   std::string NewScratchDirectory() override
   {
      std::error_code error;
      std::string path = std::filesystem::temp_directory_path(error).string() + "/metrix.XXXXXX";
      if (error || ::mkdtemp(path.data()) == nullptr) {
         throw PlatformException("create scratch directory " + path, errno);
      }
      return path + "/";
   }

   void Remove(const std::string& path) override
   {
      std::error_code error;
      std::filesystem::remove_all(path, error);
      if (error) {
         throw PlatformException("remove " + path, error.value());
      }
   }
};

} // namespace

FileHandle::~FileHandle() = default;
SystemFactory::~SystemFactory() = default;

void FileHandle::WriteAll(const void* buffer, size_t sizeBytes)
{
   const size_t done = Write(buffer, sizeBytes);
   if (done < sizeBytes) {
      throw PlatformException("write more than " + std::to_string(done) + " of " +
                                 std::to_string(sizeBytes) + " bytes",
                              ENOSPC);
   }
}

void FileHandle::WriteExtents(std::span<const FileExtent> extents)
{
   for (const FileExtent& extent : extents) {
      Seek(extent.offset);
      WriteAll(extent.bytes, extent.sizeBytes);
   }
}

std::unique_ptr<SystemFactory> NewPosixFactory()
{
   return std::make_unique<PosixFactory>();
}

} // namespace Corvax
