#pragma once

#include "metrix/statsDepot.h"
#include "tests/metrix/modelDepot.h"

#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Metrix {

/// Everything that a depot shows: the samples of each series, and as series without a name the
/// columns of each interval. Key: entity, stat, interval, rollup.
using SeriesKey = std::tuple<std::string, std::string, int, int>;
using Samples = std::vector<std::pair<TimeStamp, StatVal>>;
using Picture = std::map<SeriesKey, Samples>;

Picture PictureOf(const ModelDepot& model);
Picture PictureOf(StatsDepot& depot);

/// A depot that shows the same; its stats may have other ids.
ModelDepot ModelOf(const Picture& picture);

/// Samples that a picture lacks although both others have them, or that it has although neither
/// does; for a message, empty if there are none.
std::string FindForeign(const Picture& shown, const Picture& before, const Picture& after);

/// A host whose statistics are collected, and a model of the depot that gets them.
struct ScriptedHost {
   ModelDepot model;
   TimeStamp now = 1000000;
   int run = 0;
   bool isNew = true; ///< has no depot yet

   /// Creates a depot with the intervals.
   void Create(StatsDepot& depot);

   /// One run of the collectors. Stats are created, deleted, deleted and created at once, purged
   /// and given ids that others had; some miss runs, and there is a run after a pause.
   void Collect(StatsDepot& depot);

   static constexpr int kIntervals = 2;
   static std::string EntityName(int entity);
   static std::string StatName(int stat);
   static std::vector<StatsDepot::RollupType> RollupsOf(int stat);

private:
   bool Has(int entity) const;
   bool Has(int entity, int stat) const;
   void Add(StatsDepot& depot, const ModelDepot::Name& name, int stat, StatVal value);
};

} // namespace Metrix
