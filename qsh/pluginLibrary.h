#pragma once

#include "qsh/framework/plugin.h"

#include <string>

namespace Qsh {

/// The plug-in that is installed with this program.
std::string GetInstalledPluginFile();

/// Loads a plug-in's library, which stays loaded for the rest of the process. Corvax::Exception,
/// naming the file and the reason, when it cannot be loaded or its entry is missing or returns
/// null.
const QshFramework::PluginDesc& LoadPlugin(const std::string& fileName);

} // namespace Qsh
