#pragma once

#include <string>

namespace Corvax {

/// The directory above the running program's own, without a slash at the end: "/usr" for
/// /usr/bin/agentd. Libraries are in its folder lib. PlatformException where /proc is not mounted.
std::string GetInstallPrefix();

/// The path from the root, without "." and "..", for one from the current directory.
std::string GetAbsolutePath(const std::string& path);

} // namespace Corvax
