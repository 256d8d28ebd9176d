#pragma once

#include "corvax/descriptor.h"
#include "corvax/file.h"

#include <cstdint>
#include <string>

namespace Corvax {

/// Holds a lock on a file while the object lives, so that one process at a time uses the directory
/// that the file is in. The kernel releases the lock when the process ends, however that happens.
/// The file stays.
class LockFile : public FileLock {
public:
   /// Creates the file if it is missing and writes the process id into it. Exception, naming the
   /// holder, if the lock is held; PlatformException if the file cannot be opened.
   explicit LockFile(const std::string& path);

   /// The id of the process that holds the lock; 0 if none does or there is no file.
   static int64_t GetHolder(const std::string& path);

private:
   Descriptor _descriptor;
};

} // namespace Corvax
