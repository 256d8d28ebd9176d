#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Agentd {

/// The command line. The configuration file decides on options that are not given.
struct Options {
   std::string configFile; ///< empty: none
   bool checkConfig = false;
   std::optional<std::string> stateDir;
   std::optional<int> intervalSec; ///< a divisor of 300
   bool mockup = false;
   int64_t runs = 0; ///< stop after this many collection runs; 0: only on a signal
   bool report = false;
   std::optional<std::string> pluginFile;
   std::optional<std::string> backend;    ///< "auto", "linux" or "simulated"
   std::optional<std::string> simulation; ///< settings of the simulated host, "KEY=N,..."
   std::optional<std::string> listen;     ///< "ADDRESS:PORT", "none" for no management API
};

constexpr char kProgramName[] = "agentd";

/// Boundaries of collections must fall on those of the 5-minute interval.
constexpr bool IsCollectionInterval(int seconds)
{
   return seconds > 0 && 300 % seconds == 0;
}

/// Parses the command line. Returns the exit status if the process is done: after help, version or
/// a usage error, each of which is printed.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

} // namespace Agentd
