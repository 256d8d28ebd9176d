#pragma once

#include "qsh/framework/plugin.h"

#include <string>

namespace Qsh {

/// Where the plug-in lies beside this program: ../lib from its own folder.
std::string InstalledPluginFile();

/// Loads a plug-in's library, which stays loaded for the rest of the process. Runtime exception,
/// naming the file and the reason, when it cannot be loaded, has no entry or gives nothing.
const QshFramework::PluginDesc& LoadPlugin(const std::string& fileName);

} // namespace Qsh
