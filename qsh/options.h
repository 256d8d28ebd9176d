#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Qsh {

constexpr char kProgramName[] = "qsh";

/// The command line.
struct Options {
   std::optional<std::string> commands;  ///< unset: they come from standard input
   std::vector<std::string> pluginFiles; ///< empty: the installed plug-in
};

/// Parses the command line. Returns the exit status if the process has nothing more to do: after
/// help, the version or a usage error, which are printed.
std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options);

} // namespace Qsh
