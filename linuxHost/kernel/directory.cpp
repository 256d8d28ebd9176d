#include "linuxHost/kernel/directory.h"

#include "corvax/descriptor.h"
#include "linuxHost/kernel/kernelFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

namespace LinuxHost {

namespace {

struct CloseDirectory {
   void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// Null with errno set.
Directory Open(const std::string& path)
{
   Corvax::Descriptor descriptor = Corvax::OpenBriefly(path.c_str(), O_RDONLY | O_DIRECTORY);
   Directory directory(descriptor ? ::fdopendir(descriptor.Get()) : nullptr);
   if (directory) {
      descriptor.Release(); // closed by closedir
   }
   return directory;
}

bool IsDirectory(DIR* directory, const dirent& entry)
{
   if (entry.d_type != DT_UNKNOWN) {
      return entry.d_type == DT_DIR;
   }
   struct stat status = {};
   return ::fstatat(::dirfd(directory), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(status.st_mode);
}

} // namespace

std::optional<std::vector<std::string>> ListDirectory(const std::string& path, Entries entries)
{
   std::vector<std::string> names;
   const Directory directory = Open(path);
   while (directory) {
      errno = 0;
      const dirent* const entry = ::readdir(directory.get());
      if (entry == nullptr) {
         break;
      }
      const std::string_view name = entry->d_name;
      if (name != "." && name != ".." &&
          (entries == Entries::ALL || IsDirectory(directory.get(), *entry))) {
         names.emplace_back(name);
      }
   }
   if (errno == ENOENT) {
      return std::nullopt; // also when it is removed meanwhile
   }
   if (errno != 0) {
      FailReading(path, errno);
   }
   std::ranges::sort(names);
   return names;
}

bool IsPresent(const std::string& path)
{
   struct stat status = {};
   if (::stat(path.c_str(), &status) == 0) {
      return true;
   }
   if (errno != ENOENT) {
      FailReading(path, errno);
   }
   return false;
}

} // namespace LinuxHost
