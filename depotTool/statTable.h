#pragma once

#include "depotTool/mending.h"
#include "metrix/idMapFile.h"
#include "metrix/rollupFunctions.h"
#include "metrix/statsDepot.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace DepotTool {

using Metrix::StatId;
using Metrix::StatsDepot;

struct Rollup {
   std::string_view name;
   Metrix::RollupFunction function;
};

/// By StatsDepot::RollupType.
constexpr std::array<Rollup, 6> kRollups = {{
   {"none", Metrix::CalculateNop},
   {"average", Metrix::CalculateAverage},
   {"maximum", Metrix::CalculateMax},
   {"minimum", Metrix::CalculateMin},
   {"last", Metrix::CalculateLast},
   {"sum", Metrix::CalculateSum},
}};

/// By StatsDepot::StatType.
constexpr std::array<std::string_view, 3> kStatTypes = {"absolute", "delta", "rate"};

struct Series {
   int32_t rollup; ///< an index of kRollups
   StatId id;

   auto operator<=>(const Series&) const = default;
};

struct Stat {
   std::string entityId;
   std::string statName;
   int32_t statType = 0; ///< an index of kStatTypes
   int32_t scalingFactor = 1;
   std::vector<Series> series; ///< by rollup; the first one is the raw series

   /// The part of its name that all instances share.
   std::string GetStem() const { return statName.substr(0, statName.find('#')); }
   /// "stat of entity", for messages.
   std::string GetName() const { return statName + " of " + entityId; }
};

/// Creates the id map, empty, if it is missing.
void MendIdMapFile(const Mending& mending);

/// The stats of an id map.
class StatTable {
public:
   const std::vector<Stat>& GetStats() const { return _stats; } ///< by entity id and name
   /// Null if no stat has this id.
   const Stat* Find(StatId id) const;
   /// Number of records in the file, free ones included.
   uint64_t GetRecordCount() const { return _owners.size(); }

   /// Reads the id map and clears what no depot can use: damaged records, duplicates, and stats
   /// without a raw series.
   void Load(const Mending& mending);

   /// Adds records for rollups that a stat lacks although most stats of its name have them. The
   /// rows of free ids are free.
   void AddMissingRollups(const Mending& mending);

private:
   void Index(uint64_t recordCount);
   StatId AllocId();

   std::vector<Stat> _stats;
   std::vector<uint32_t> _owners; ///< by id: index of the stat, kNoOwner if the id is free
   StatId _nextFree = 0;          ///< no id below is free
};

} // namespace DepotTool
