#pragma once

#include <string>
#include <vector>

namespace Metrix {

/// Files that a depot can no longer use go to the directory NAME.aside beside them, so that they
/// can be examined or restored. It holds the files of the last time only.
///
/// A crash at any point leaves the files where they were, or the next FinishSetAside completes the
/// move. `directory` ends with "/". Errors: PlatformException; the files are then in one of the two
/// places, and FinishSetAside completes the move.

/// Sets some of the depot's files aside. `files` are names in the directory. The caller holds the
/// depot's lock. Returns the path of NAME.aside.
std::string SetAside(const std::string& directory, const std::string& name,
                     const std::vector<std::string>& files);

/// Sets all files of a depot aside except its lock file. Takes the depot's lock: Exception, naming
/// the process, if another one holds it. Returns the path of NAME.aside; empty, with nothing done,
/// if there are no files, or if the files are only those of a depot without stats and would replace
/// older ones.
std::string SetDepotAside(const std::string& directory, const std::string& name);

/// Completes what a crash interrupted. Takes the depot's lock if there is something to do:
/// Exception, naming the process, if another one holds it.
void FinishSetAside(const std::string& directory, const std::string& name);

} // namespace Metrix
