#include "corvax/program.h"

#include "corvax/exception.h"

#include <filesystem>

namespace Corvax {

std::string GetInstallPrefix()
{
   std::error_code error;
   const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
   if (error) {
      throw PlatformException("find the running program by /proc/self/exe", error.value());
   }
   return program.parent_path().parent_path().string();
}

std::string GetAbsolutePath(const std::string& path)
{
   std::error_code error;
   const std::filesystem::path absolute = std::filesystem::absolute(path, error);
   if (error) {
      throw PlatformException("find the absolute path of " + path, error.value());
   }
   return absolute.lexically_normal().string();
}

} // namespace Corvax
