#include "agentctl/metricNames.h"

#include "agentctl/valueFormat.h"

#include "corvax/format.h"

#include <algorithm>

namespace Agentctl {

namespace {

constexpr char kPercent[] = "%";

std::string GetShortUnit(const std::string& unit)
{
   static const std::map<std::string, std::string> units = {
      {"percent", kPercent},         {"megaHertz", "MHz"},  {"kiloBytes", "KB"},
      {"megaBytes", "MB"},           {"millisecond", "ms"}, {"second", "s"},
      {"kiloBytesPerSecond", "KB/s"}};
   return Shorten(unit, units);
}

} // namespace

MetricNames::MetricNames(const std::vector<Counter>& counters)
{
   for (const Counter& counter : counters) {
      _counters.emplace(counter.id, counter);
   }
}

/// The short name means the raw values, or the only counter of that name.
bool MetricNames::HasRollupInName(const Counter& counter) const
{
   if (counter.rollup == "none") {
      return false;
   }
   return std::ranges::any_of(_counters, [&counter](const auto& entry) {
      const Counter& other = entry.second;
      return other.id != counter.id && other.group == counter.group && other.name == counter.name;
   });
}

std::string MetricNames::GetName(const Metric& metric) const
{
   const auto found = _counters.find(metric.counterId);
   std::string name = Corvax::ToText(metric.counterId);
   if (found != _counters.end()) {
      const Counter& counter = found->second;
      name = counter.group + "." + counter.name;
      name += HasRollupInName(counter) ? "." + counter.rollup : "";
   }
   return metric.instance.empty() ? name : name + ":" + metric.instance;
}

std::string MetricNames::GetUnit(const Metric& metric) const
{
   const auto found = _counters.find(metric.counterId);
   return found == _counters.end() ? "?" : GetShortUnit(found->second.unit);
}

std::string MetricNames::FormatValue(const Metric& metric,
                                     const std::optional<int64_t>& value) const
{
   const bool isPercent = value && GetUnit(metric) == kPercent;
   return isPercent ? FormatHundredths(*value) + " %" : FormatNumber(value);
}

} // namespace Agentctl
