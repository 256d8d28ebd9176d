#pragma once

#include "metrix/statTypes.h"
#include "simHost/simOptions.h"
#include "tests/simHost/simShape.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

/// A stat that the collector keeps of a simulated entity, worked out from the host's model alone.
struct SimStat {
   /// How samples come from readings; it decides the rollups, too.
   enum class Kind { GAUGE, GAUGE_AVERAGE, LATEST, GROWTH, RATE, RATE_AVERAGE };
   struct Reading {
      int64_t timeSec;
      const SimShape& shape; ///< the entity's
      const SimShape& host;
   };

   Kind kind;
   Metrix::StatVal limit; ///< a sample above it is cut to it; 0: no limit
   /// Nothing if the entity does not have this figure then.
   std::function<std::optional<uint64_t>(const Reading& at)> read;
};

/// By stat name.
using SimStatTable = std::map<std::string, SimStat>;

SimStatTable MakeHostStats(const SimHost::SimOptions& options, const std::string& hostId,
                           bool wideFigures);
SimStatTable MakePoolStats(const SimHost::SimOptions& options, const std::string& poolId);
/// With the stats of all parts that the virtual machine has ever had.
SimStatTable MakeVmStats(const SimHost::SimOptions& options, const std::string& vmId,
                         const SimShape& shape, bool wideFigures);
