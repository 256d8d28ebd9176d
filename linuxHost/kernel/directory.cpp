#include "linuxHost/kernel/directory.h"

#include "corvax/descriptor.h"
#include "linuxHost/kernel/kernelFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace LinuxHost {

namespace {

bool IsDirectory(int directory, const dirent64& entry)
{
   if (entry.d_type != DT_UNKNOWN) {
      return entry.d_type == DT_DIR;
   }
   struct stat status = {};
   return ::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(status.st_mode);
}

/// Adds the names; returns an errno, 0 for success.
int ReadNames(int directory, Entries entries, std::vector<std::string>& names)
{
   constexpr size_t kBufferBytes = 16384;
   alignas(dirent64) std::array<char, kBufferBytes> buffer;
   for (;;) {
      const ssize_t count = ::getdents64(directory, buffer.data(), buffer.size());
      if (count <= 0) {
         return count == 0 ? 0 : errno;
      }
      for (ssize_t at = 0; at < count;) {
         const auto& entry = *reinterpret_cast<const dirent64*>(buffer.data() + at);
         at += entry.d_reclen;
         const std::string_view name = entry.d_name;
         if (name != "." && name != ".." &&
             (entries == Entries::ALL || IsDirectory(directory, entry))) {
            names.emplace_back(name);
         }
      }
   }
}

} // namespace

std::optional<std::vector<std::string>> ListDirectory(const std::string& path, Entries entries)
{
   std::vector<std::string> names;
   const Corvax::BriefDescriptor directory =
      Corvax::OpenBriefly(path.c_str(), O_RDONLY | O_DIRECTORY);
   const int errorNumber = directory ? ReadNames(directory.Get(), entries, names) : errno;
   if (errorNumber == ENOENT) {
      return std::nullopt; // also when it is removed meanwhile
   }
   if (errorNumber != 0) {
      FailReading(path, errorNumber);
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
