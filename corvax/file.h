#pragma once

#include "corvax/lockable.h"
#include "corvax/object.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

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

/// Bytes and the offset in a file at which to write them.
struct FileExtent {
   uint64_t offset = 0;
   const void* bytes = nullptr;
   size_t sizeBytes = 0;
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

   /// Writes the extents in order, many with one system call where the platform supports that. The
   /// position is undefined afterwards. PlatformException when one cannot be written whole; those
   /// after it may or may not have been written.
   virtual void WriteExtents(std::span<const FileExtent> extents);

   /// Syncs the file's data to the disk.
   virtual void Flush() = 0;

   /// As Write; PlatformException if not everything was written.
   void WriteAll(const void* buffer, size_t sizeBytes);

protected:
   ~FileHandle() override;
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

   virtual std::unique_ptr<Mutex> CreateMutex() { return NewMutex(); }
};

/// The real file system.
std::unique_ptr<SystemFactory> NewPosixFactory();

} // namespace Corvax
