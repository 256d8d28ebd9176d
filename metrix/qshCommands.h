#pragma once

#include "qsh/framework/plugin.h"

namespace Metrix {

/// The depot's commands for the diagnostic shell. They all use the depot that was loaded last.
///
/// Locking: the shell runs one command at a time. The commands lock the depot.
const QshFramework::PluginDesc* GetQshPlugin();

} // namespace Metrix
