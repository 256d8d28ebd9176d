#pragma once

#include <string>
#include <vector>

namespace LinuxHost {

/// Directories below which libvirt usually has images.
extern const std::vector<std::string> kImageDirectories;

/// What this process may not see of the host: for the log, a line for each right that is missing,
/// with the figures that are lost and what brings them back. Empty when it sees everything. `root`
/// goes before the path of every file.
std::vector<std::string>
FindMissingRights(const std::string& root,
                  const std::vector<std::string>& imageDirectories = kImageDirectories);

} // namespace LinuxHost
