#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agentctl {

constexpr char kProgramName[] = "agentctl";

enum class Command { ENTITIES, COUNTERS, INTERVALS, METRICS, QUERY, USAGE, TOP };
enum class QueryFormat { TABLE, CSV, JSON };

/// The command line.
struct Options {
   std::string server = "http://127.0.0.1:8697";
   Command command = Command::ENTITIES;
   std::string group;    ///< of `counters`; empty: all
   std::string entityId; ///< of `metrics` and `query`
   std::string vmId;     ///< of `usage`; empty: the host
   std::vector<std::string> metrics;
   std::optional<int64_t> intervalSec; ///< unset: the entity's real-time interval
   std::string from;
   std::string to;
   std::optional<int64_t> maxSample; ///< in periods of the real-time interval
   QueryFormat format = QueryFormat::TABLE;
   bool watch = false;
   bool utc = false;
   std::optional<int64_t> count; ///< of `top`: number of plain tables; unset: the full screen
};

/// Parses the command line and METRIX_SERVER. Returns the exit status if the process has nothing
/// more to do: after help, the version or a usage error, which are printed.
std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options);

} // namespace Agentctl
