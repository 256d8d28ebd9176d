#pragma once

#include "corvax/lockable.h"
#include "corvax/object.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Corvax {

/// Permitted uses of an open file; a mask.
enum FileAccess : uint32_t {
   FILE_READ = 1,
   FILE_WRITE = 2,
   FILE_READ_WRITE = FILE_READ | FILE_WRITE,
};

enum class FileCreation {
   OPEN_EXISTING, ///< the file must exist; its content stays
   CREATE_ALWAYS, ///< the file is created, or truncated if it exists
};

/// An open file with its own position.
///
/// Cost: Seek is bookkeeping; Read and Write are one system call each, more only after a short
/// count. Errors: PlatformException naming the operation, the file, the offset and the reason.
/// Locking: none; one thread at a time.
class FileHandle : public virtual Object {
public:
   virtual void Open(const std::string& path, uint32_t accessMask, FileCreation creation) = 0;
   virtual bool IsOpen() const = 0;
   /// Closing what is not open does nothing.
   virtual void Close() = 0;

   /// Current size in bytes.
   virtual uint64_t GetSize() = 0;

   /// Sets the position of the next read or write, from the start; may be beyond the end.
   virtual void Seek(uint64_t offset) = 0;

   /// Reads up to `sizeBytes` and advances the position. Returns fewer bytes only at the end.
   virtual size_t Read(void* buffer, size_t sizeBytes) = 0;

   /// Writes, extending the file as needed (a gap reads as zero bytes), and advances the position.
   /// Returns the number of bytes written: fewer if the device took only a part. PlatformException
   /// if it took nothing.
   virtual size_t Write(const void* buffer, size_t sizeBytes) = 0;

   /// Syncs the file's data to the disk. After a failure the data may be lost although a second
   /// call succeeds: write it again first.
   virtual void Flush() = 0;

   /// Sets the size; what is added reads as zero bytes.
   virtual void Truncate(uint64_t sizeBytes) = 0;

   /// Reserves disk space for the bytes from `offset` on; the size stays. Does nothing where the
   /// file system cannot do it. PlatformException (ENOSPC) if the space cannot be had.
   virtual void Allocate(uint64_t offset, uint64_t sizeBytes) = 0;

   /// Whether the path still leads to this file; false once the file is replaced, renamed or
   /// deleted.
   virtual bool IsAt(const std::string& path) = 0;

   /// As Write; PlatformException if not everything was written.
   void WriteAll(const void* buffer, size_t sizeBytes);

protected:
   ~FileHandle() override;
};

/// A lock on a file, held while the object lives.
class FileLock {
public:
   FileLock() = default;
   virtual ~FileLock();
   FileLock(const FileLock&) = delete;
   FileLock& operator=(const FileLock&) = delete;
};

/// Creates the platform's objects. A test replaces it to fail on command.
class SystemFactory {
public:
   virtual ~SystemFactory();

   virtual Ref<FileHandle> NewFileHandle() = 0;
   /// Size of a file in bytes; PlatformException if it does not exist.
   virtual uint64_t GetFileSize(const std::string& path) = 0;
   virtual bool Exists(const std::string& path) = 0;
   /// Creates missing parents, too.
   virtual void CreateDirectory(const std::string& path) = 0;
   /// Replaces `to` by `from` atomically.
   virtual void Rename(const std::string& from, const std::string& to) = 0;
   /// Creates an empty temporary directory; the path ends with "/".
   virtual std::string NewScratchDirectory() = 0;
   /// Removes a file, or a directory with its contents; a missing one is not an error.
   virtual void Remove(const std::string& path) = 0;
   /// Brings creations, renames and removals in the directory to the disk.
   virtual void SyncDirectory(const std::string& path) = 0;
   /// Names of all entries, in no order.
   virtual std::vector<std::string> ListDirectory(const std::string& path) = 0;
   /// Locks a file, which is created if it is missing, until the result is destroyed or the process
   /// ends. Exception, naming the process that holds the lock, if there is one.
   virtual std::unique_ptr<FileLock> Lock(const std::string& path) = 0;
   /// The id of the process that holds the lock on the file; 0 if none does or there is no file.
   virtual int64_t GetLockHolder(const std::string& path) = 0;

   virtual std::unique_ptr<Mutex> CreateMutex() { return NewMutex(); }
};

/// The real file system.
std::unique_ptr<SystemFactory> NewPosixFactory();

} // namespace Corvax
