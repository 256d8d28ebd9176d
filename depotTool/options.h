#pragma once

#include <optional>
#include <string>

namespace DepotTool {

constexpr char kProgramName[] = "metrix-depot";

enum class Command { CHECK, REPAIR, DUMP, RESTORE, INFO, EXPORT };

/// The command line.
struct Options {
   Command command = Command::CHECK;
   std::string dir;
   std::string name = "hostAgentStats";
   bool json = false;
   bool all = false;         ///< of `check` and `repair`: every finding
   std::string toDir;        ///< of `repair`
   bool inPlace = false;     ///< of `repair`; if not set, toDir is
   bool recompute = false;   ///< of `repair`
   std::string dumpFile;     ///< of `restore`; "-": standard input
   bool openMetrics = false; ///< of `export`; the only format
   std::string intervalName; ///< of `export`; empty: the finest
};

/// Parses the command line. Returns the exit status if the process has nothing more to do: after
/// help, the version or a usage error, which are printed.
std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options);

} // namespace DepotTool
