#include "depotTool/info.h"

#include "console/printable.h"
#include "corvax/dateTime.h"
#include "corvax/format.h"
#include "corvax/system.h"

#include <nlohmann/json.hpp>

#include <set>

namespace DepotTool {

namespace {

using Console::Printable;
using Corvax::Format;
using Metrix::kUnset;

std::string ToSize(uint64_t bytes)
{
   constexpr uint64_t kKilo = 1000;
   if (bytes < 10 * kKilo) {
      return Format("%1 bytes", bytes);
   }
   if (bytes < 10 * kKilo * kKilo) {
      return Format("%1 kB", (bytes + kKilo / 2) / kKilo);
   }
   return Format("%1 MB", (bytes + kKilo * kKilo / 2) / (kKilo * kKilo));
}

std::string ToSpan(uint64_t seconds)
{
   if (seconds % 3600 == 0) {
      return Format("%1 h", seconds / 3600);
   }
   return seconds % 60 == 0 ? Format("%1 min", seconds / 60) : Format("%1 s", seconds);
}

std::string ToTime(TimeStamp stamp)
{
   return stamp == kUnset ? "none"
                          : Corvax::DateTime::FromSeconds(static_cast<int64_t>(stamp)).ToString();
}

nlohmann::json ToJsonTime(TimeStamp stamp)
{
   return stamp == kUnset ? nlohmann::json(nullptr) : nlohmann::json(stamp);
}

uint64_t GetSize(const std::string& path)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   return factory.Exists(path) ? factory.GetFileSize(path) : 0;
}

} // namespace

DepotInfo GetInfo(const DepotImage& depot, const DepotPaths& original)
{
   DepotInfo info;
   const StatTable& stats = depot.GetStats();
   info.journalBytes = GetSize(original.GetJournal(0)) + GetSize(original.GetJournal(1));
   info.bytes = GetSize(original.GetDescription()) + GetSize(original.GetIdMap()) + //
                info.journalBytes;
   info.fullBytes = info.bytes;
   for (const auto& [name, periodSec, store] : depot.GetIntervals()) {
      const std::vector<Column>& columns = store->GetColumns();
      info.intervals.push_back({name, periodSec, store->GetNumSamples(), columns.size(),
                                columns.empty() ? kUnset : columns.front().stamp,
                                columns.empty() ? kUnset : columns.back().stamp,
                                store->GetRowPos(store->GetRowCount()),
                                store->GetRowPos(stats.GetRecordCount())});
      info.bytes += info.intervals.back().bytes;
      info.fullBytes += info.intervals.back().fullBytes;
   }
   std::set<std::string> entities;
   for (const Stat& stat : stats.GetStats()) {
      entities.insert(stat.entityId);
      info.series += stat.series.size();
   }
   info.entities = entities.size();
   info.stats = stats.GetStats().size();
   return info;
}

std::string ToText(const DepotInfo& info, const DepotPaths& depot)
{
   std::string text = Format("depot %1 in %2\n", Printable(depot.name), Printable(depot.dir));
   text += Format("stats: %1 of %2 entities, %3 series\n", info.stats, info.entities, info.series);
   text +=
      Format("size: %1, of which the journal %2; %3 once each series has a row in every store\n",
             ToSize(info.bytes), ToSize(info.journalBytes), ToSize(info.fullBytes));
   for (const DepotInfo::Interval& interval : info.intervals) {
      text += Format("interval %1: every %2 s, %3 columns, that is %4; %5 in use\n",
                     Printable(interval.name), interval.periodSec, interval.columns,
                     ToSpan(uint64_t{interval.columns} * static_cast<uint64_t>(interval.periodSec)),
                     interval.usedColumns);
      text += Format("   from %1 to %2; store %3, full %4\n", ToTime(interval.oldest),
                     ToTime(interval.newest), ToSize(interval.bytes), ToSize(interval.fullBytes));
   }
   return text;
}

std::string ToJson(const DepotInfo& info)
{
   nlohmann::json intervals = nlohmann::json::array();
   for (const DepotInfo::Interval& interval : info.intervals) {
      intervals.push_back({{"name", Printable(interval.name)},
                           {"periodSec", interval.periodSec},
                           {"columns", interval.columns},
                           {"usedColumns", interval.usedColumns},
                           {"oldest", ToJsonTime(interval.oldest)},
                           {"newest", ToJsonTime(interval.newest)},
                           {"bytes", interval.bytes},
                           {"fullBytes", interval.fullBytes}});
   }
   const nlohmann::json document = {
      {"intervals", intervals},     {"entities", info.entities},         {"stats", info.stats},
      {"series", info.series},      {"journalBytes", info.journalBytes}, {"bytes", info.bytes},
      {"fullBytes", info.fullBytes}};
   return document.dump(2) + "\n";
}

} // namespace DepotTool
