#pragma once

#include "qsh/framework/plugin.h"

namespace Metrix {

/// The depot's commands for the diagnostic shell. They share one depot, the last that was loaded.
///
/// Locking: the shell runs one command at a time; the depot's lock is held around its calls.
const QshFramework::PluginDesc* GetQshPlugin();

} // namespace Metrix
