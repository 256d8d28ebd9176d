#include "corvax/file.h"

#include "corvax/descriptor.h"
#include "corvax/exception.h"
#include "corvax/lockFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Corvax {

namespace {

class PosixFileHandle : public FileHandle, public ObjectImpl {
public:
   PosixFileHandle() = default;

   void Open(const std::string& path, uint32_t accessMask, FileCreation creation) override
   {
      PosixFileHandle::Close();
      int flags = O_CLOEXEC;
      flags |= accessMask == FILE_READ ? O_RDONLY : accessMask == FILE_WRITE ? O_WRONLY : O_RDWR;
      flags |= creation == FileCreation::CREATE_ALWAYS ? O_CREAT | O_TRUNC : 0;
      do {
         _descriptor = ::open(path.c_str(), flags, 0644);
      } while (_descriptor < 0 && errno == EINTR);
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

   void Flush() override
   {
      if (::fdatasync(_descriptor) != 0) {
         throw PlatformException("flush " + _path + " to disk", errno);
      }
   }

   void Truncate(uint64_t sizeBytes) override
   {
      if (::ftruncate(_descriptor, static_cast<off_t>(sizeBytes)) != 0) {
         throw PlatformException("set the size of " + _path + " to " + std::to_string(sizeBytes),
                                 errno);
      }
   }

   void Allocate(uint64_t offset, uint64_t sizeBytes) override
   {
      if (::fallocate(_descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                      static_cast<off_t>(sizeBytes)) != 0 &&
          errno != EOPNOTSUPP && errno != ENOSYS) {
         throw PlatformException("reserve " + std::to_string(sizeBytes) + " bytes at offset " +
                                    std::to_string(offset) + " of " + _path,
                                 errno);
      }
   }

   bool IsAt(const std::string& path) override
   {
      struct stat here{};
      struct stat there{};
      return ::fstat(_descriptor, &here) == 0 && ::stat(path.c_str(), &there) == 0 &&
             here.st_dev == there.st_dev && here.st_ino == there.st_ino;
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

   void SyncDirectory(const std::string& path) override
   {
      const BriefDescriptor directory = OpenBriefly(path.c_str(), O_RDONLY | O_DIRECTORY);
      if (!directory || ::fsync(directory.Get()) != 0) {
         throw PlatformException("flush directory " + path + " to disk", errno);
      }
   }

   std::vector<std::string> ListDirectory(const std::string& path) override
   {
      std::vector<std::string> names;
      std::error_code error;
      std::filesystem::directory_iterator entry(path, error);
      while (!error && entry != std::filesystem::directory_iterator()) {
         names.push_back(entry->path().filename().string());
         entry.increment(error);
      }
      if (error) {
         throw PlatformException("list directory " + path, error.value());
      }
      return names;
   }

   std::unique_ptr<FileLock> Lock(const std::string& path) override
   {
      return std::make_unique<LockFile>(path);
   }

   int64_t GetLockHolder(const std::string& path) override { return LockFile::GetHolder(path); }
};

} // namespace

FileHandle::~FileHandle() = default;
FileLock::~FileLock() = default;
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

std::unique_ptr<SystemFactory> NewPosixFactory()
{
   return std::make_unique<PosixFactory>();
}

} // namespace Corvax
