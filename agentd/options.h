#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Agentd {

/// The command line. What is not given is unset and falls to the configuration file.
struct Options {
   std::string configFile; ///< empty: none
   bool checkConfig = false;
   std::optional<std::string> stateDir;
   std::optional<int> intervalSec; ///< a divisor of 300
   bool mockup = false;
   int64_t runs = 0; ///< collection runs after which to stop; 0: until a signal comes
   bool report = false;
   std::optional<std::string> pluginFile;
   std::optional<std::string> backend;    ///< where the figures come from
   std::optional<std::string> simulation; ///< what the simulated host has
   std::optional<std::string> listen;     ///< "ADDRESS:PORT", "none" for no management API
};

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

/// Reads the command line. Where the process has nothing more to do (help, version, a usage error,
/// each of which is printed) it returns the exit status, else nothing.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

} // namespace Agentd
