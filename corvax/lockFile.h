#pragma once

#include "corvax/descriptor.h"

#include <string>

namespace Corvax {

/// Holds a lock on a file for as long as the object lives, so that one process at a time uses what
/// the file stands for. The lock goes with the process, however it ends.
class LockFile {
public:
   /// Creates the file as needed and writes the process id into it. Exception, naming the holder,
   /// when another process has the lock; PlatformException when the file cannot be made.
   explicit LockFile(const std::string& path);

private:
   Descriptor _descriptor;
};

} // namespace Corvax
