#include "qsh/pluginLibrary.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/program.h"
#include "corvax/sharedLibrary.h"

#include <type_traits>

namespace Qsh {

std::string GetInstalledPluginFile()
{
   return Corvax::GetInstallPrefix() + "/lib/libmetrix.so";
}

const QshFramework::PluginDesc& LoadPlugin(const std::string& fileName)
{
   const Corvax::SharedLibrary library(fileName);
   const auto entry = library.GetFunction<std::remove_pointer_t<QshFramework::PluginEntry>>(
      QshFramework::kPluginEntryName);
   const QshFramework::PluginDesc* const plugin = entry();
   if (plugin == nullptr) {
      throw Corvax::Exception(
         Corvax::Format("%1 of %2 returned no plug-in", QshFramework::kPluginEntryName, fileName));
   }
   return *plugin;
}

} // namespace Qsh
