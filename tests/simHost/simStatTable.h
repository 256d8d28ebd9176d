#pragma once

#include "metrix/statTypes.h"
#include "simHost/simOptions.h"

#include <functional>
#include <map>
#include <string>

/// A stat that the collector keeps of a simulated entity, worked out from the host's model alone.
struct SimStat {
   /// How samples come from readings; it decides the rollups, too.
   enum class Kind { GAUGE, GAUGE_AVERAGE, LATEST, GROWTH, RATE, RATE_AVERAGE };
   /// What a run reads of an entity; a mask. The host and pools have kCpu alone, for everything.
   enum Parts : uint8_t { kNothing = 0, kCpu = 1, kMemory = 2, kAll = 3 };

   Kind kind;
   uint8_t part;
   Metrix::StatVal limit; ///< a sample above it is cut to it; 0: no limit
   std::function<uint64_t(int64_t timeSec)> read;
};

/// By stat name.
using SimStatTable = std::map<std::string, SimStat>;

SimStatTable MakeHostStats(const SimHost::SimOptions& options, const std::string& hostId);
SimStatTable MakePoolStats(const SimHost::SimOptions& options, const std::string& poolId);
SimStatTable MakeVmStats(const SimHost::SimOptions& options, const std::string& vmId);
