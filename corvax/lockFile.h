#pragma once

#include "corvax/descriptor.h"

#include <string>

namespace Corvax {

/// Holds a lock on a file while the object lives, so that one process at a time uses the directory
/// that the file is in. The kernel releases the lock when the process ends, however that happens.
class LockFile {
public:
   /// Creates the file if it is missing and writes the process id into it. Exception, naming the
   /// holder, if another process has the lock; PlatformException if the file cannot be opened.
   explicit LockFile(const std::string& path);

private:
   Descriptor _descriptor;
};

} // namespace Corvax
