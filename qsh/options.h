#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Qsh {

/// The command line.
struct Options {
   std::optional<std::string> commands; ///< unset: they come from standard input
   std::vector<std::string> pluginFiles;
};

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

/// Reads the command line. Where the process has nothing more to do (help, version, a usage error,
/// each of which is printed) it returns the exit status, else nothing.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

} // namespace Qsh
