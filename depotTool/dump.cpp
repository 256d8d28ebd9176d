#include "depotTool/dump.h"

#include "depotTool/dumpFormat.h"

namespace DepotTool {

namespace {

using Metrix::kUnset;

void DumpColumns(const IntervalImage& interval, TextOutput& output)
{
   const std::vector<Column>& columns = interval.store->GetColumns();
   const auto period = static_cast<uint64_t>(interval.periodSec);
   for (size_t first = 0, end = 0; first < columns.size(); first = end) {
      for (end = first + 1;
           end < columns.size() && columns[end].stamp == columns[end - 1].stamp + period;) {
         ++end;
      }
      output << DumpFormat::kColumns << " " << columns[first].stamp << " " << end - first;
      output.EndLine();
   }
}

void DumpSeries(const IntervalImage& interval, const std::vector<StatVal>& values,
                TextOutput& output)
{
   const std::vector<Column>& columns = interval.store->GetColumns();
   const auto period = static_cast<uint64_t>(interval.periodSec);
   size_t inLine = 0;
   for (size_t i = 0; i < values.size(); ++i) {
      if (values[i] == kUnset) {
         continue;
      }
      const bool continues = inLine > 0 && inLine < DumpFormat::kMostValues &&
                             values[i - 1] != kUnset &&
                             columns[i].stamp == columns[i - 1].stamp + period;
      if (!continues) {
         if (inLine > 0) {
            output.EndLine();
         }
         output << columns[i].stamp;
         inLine = 0;
      }
      output << " " << values[i];
      ++inLine;
   }
   output.EndLine();
}

void DumpStat(const Stat& stat, const DepotImage& depot, TextOutput& output)
{
   output << DumpFormat::kStat << " " << DumpFormat::Escape(stat.entityId) << " "
          << DumpFormat::Escape(stat.statName) << " "
          << kStatTypes[static_cast<size_t>(stat.statType)] << " " << stat.scalingFactor;
   for (const Series& series : stat.series) {
      output << " " << kRollups[static_cast<size_t>(series.rollup)].name;
   }
   output.EndLine();
   std::vector<StatVal> values;
   for (const IntervalImage& interval : depot.GetIntervals()) {
      for (const auto& [rollup, id] : stat.series) {
         if (interval.store->GetSeries(id, values)) {
            output << DumpFormat::kSamples << " " << DumpFormat::Escape(interval.name) << " "
                   << kRollups[static_cast<size_t>(rollup)].name;
            output.EndLine();
            DumpSeries(interval, values, output);
         }
      }
   }
}

} // namespace

void Dump(const DepotImage& depot, TextOutput& output)
{
   output << DumpFormat::kFirstLine;
   output.EndLine();
   for (const IntervalImage& interval : depot.GetIntervals()) {
      output << DumpFormat::kInterval << " " << DumpFormat::Escape(interval.name) << " "
             << interval.periodSec << " " << interval.store->GetNumSamples();
      output.EndLine();
      DumpColumns(interval, output);
   }
   const std::vector<Stat>& stats = depot.GetStats().GetStats();
   for (const Stat& stat : stats) {
      DumpStat(stat, depot, output);
   }
   output << DumpFormat::kEnd << " " << stats.size();
   output.EndLine();
   output.Flush();
}

} // namespace DepotTool
