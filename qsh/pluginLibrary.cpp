#include "qsh/pluginLibrary.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <dlfcn.h>

#include <filesystem>

namespace Qsh {

namespace {

using Corvax::Format;
using QshFramework::kPluginEntryName;

constexpr char kPluginFileName[] = "libmetrix.so";

} // namespace

std::string InstalledPluginFile()
{
   const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
   return (program.parent_path().parent_path() / "lib" / kPluginFileName).string();
}

const QshFramework::PluginDesc& LoadPlugin(const std::string& fileName)
{
   // A name without a slash would be searched for among the system's libraries.
   const std::string path = fileName.find('/') == std::string::npos ? "./" + fileName : fileName;
   void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (library == nullptr) {
      throw Corvax::Exception(Format("Cannot load plug-in %1: %2", fileName, ::dlerror()));
   }
   void* const entry = ::dlsym(library, kPluginEntryName);
   if (entry == nullptr) {
      throw Corvax::Exception(Format("%1 is no plug-in of the shell: it does not export %2",
                                     fileName, kPluginEntryName));
   }
   const auto* const plugin = reinterpret_cast<QshFramework::PluginEntry>(entry)();
   if (plugin == nullptr) {
      throw Corvax::Exception(Format("%1 gave no plug-in", fileName));
   }
   return *plugin;
}

} // namespace Qsh
