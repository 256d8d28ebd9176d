#include "depotTool/openMetrics.h"

#include "console/printable.h"
#include "corvax/exception.h"
#include "corvax/format.h"

#include <algorithm>
#include <map>
#include <set>

namespace DepotTool {

namespace {

using Metrix::kUnset;

struct Family {
   std::vector<const Stat*> stats;
   std::set<std::string> stems; ///< different ones can give one name
};

std::string ToFamilyName(const std::string& stem)
{
   std::string name = "metrix_";
   for (const char c : stem) {
      const bool isPlain =
         (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
      name += isPlain ? c : '_';
   }
   return name;
}

/// The value of a label, which must be UTF-8.
std::string Quote(std::string_view value)
{
   std::string quoted = "\"";
   for (const char c : Console::Printable(value)) {
      quoted += c == '"' || c == '\\' ? "\\" : "";
      quoted += c;
   }
   return quoted + "\"";
}

std::string MakeLabels(const Stat& stat, const Series& series, const Family& family)
{
   std::string labels = "{entity=" + Quote(stat.entityId);
   const size_t hash = stat.statName.find('#');
   if (hash != std::string::npos) {
      labels += ",instance=" + Quote(std::string_view(stat.statName).substr(hash + 1));
   }
   if (series.rollup != StatsDepot::ROLLUP_NONE) {
      labels += ",rollup=" + Quote(kRollups[static_cast<size_t>(series.rollup)].name);
   }
   if (family.stems.size() > 1) {
      labels += ",name=" + Quote(stat.GetStem());
   }
   return labels + "}";
}

void ExportSeries(const std::string& metric, const std::vector<Column>& columns,
                  const std::vector<StatVal>& values, TextOutput& output)
{
   for (size_t i = 0; i < values.size(); ++i) {
      if (values[i] != kUnset) {
         output << metric << " " << values[i] << " " << columns[i].stamp;
         output.EndLine();
      }
   }
}

const IntervalImage& SelectInterval(const DepotImage& depot, const std::string& name)
{
   const std::vector<IntervalImage>& intervals = depot.GetIntervals();
   const auto found =
      name.empty() ? intervals.begin() : std::ranges::find(intervals, name, &IntervalImage::name);
   if (found == intervals.end()) {
      std::string names;
      for (const IntervalImage& interval : intervals) {
         names += (names.empty() ? "" : ", ") + interval.name;
      }
      throw Corvax::InvalidArgumentException(
         Corvax::Format("the depot has no interval %1, but %2", name, names));
   }
   return *found;
}

} // namespace

void ExportOpenMetrics(const DepotImage& depot, const std::string& intervalName, TextOutput& output)
{
   const IntervalImage& interval = SelectInterval(depot, intervalName);
   // All samples of a family must be together.
   std::map<std::string, Family> families;
   for (const Stat& stat : depot.GetStats().GetStats()) {
      const std::string stem = stat.GetStem();
      Family& family = families[ToFamilyName(stem)];
      family.stats.push_back(&stat);
      family.stems.insert(stem);
   }
   std::vector<StatVal> values;
   for (const auto& [name, family] : families) {
      output << "# TYPE " << name << " gauge";
      output.EndLine();
      for (const Stat* const stat : family.stats) {
         for (const Series& series : stat->series) {
            if (interval.store->GetSeries(series.id, values)) {
               ExportSeries(name + MakeLabels(*stat, series, family), interval.store->GetColumns(),
                            values, output);
            }
         }
      }
   }
   output << "# EOF";
   output.EndLine();
   output.Flush();
}

} // namespace DepotTool
