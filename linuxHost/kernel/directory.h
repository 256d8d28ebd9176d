#pragma once

#include <optional>
#include <string>
#include <vector>

namespace LinuxHost {

enum class Entries { ALL, DIRECTORIES };

/// Names in a directory, sorted; unset when there is no such directory. A descriptor is taken from
/// the reserve if need be. Errors: HostCtl::Lib::HostCtlException when it cannot be listed, so that
/// a failure is never an empty directory.
std::optional<std::vector<std::string>> ListDirectory(const std::string& path, Entries entries);

/// Whether there is such a file or directory. Errors: HostCtl::Lib::HostCtlException when that
/// cannot be found out.
bool IsPresent(const std::string& path);

} // namespace LinuxHost
