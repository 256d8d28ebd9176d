#include "agentctl/commands.h"

#include "agentctl/metricNames.h"
#include "agentctl/textTable.h"
#include "agentctl/valueFormat.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <algorithm>

namespace Agentctl {

namespace {

using Corvax::Format;
using Corvax::ToText;

/// "1 d 12 h" for 129600.
std::string FormatLength(int64_t seconds)
{
   constexpr std::pair<int64_t, const char*> kUnits[] = {
      {86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
   std::string text;
   for (const auto& [size, unit] : kUnits) {
      if (seconds >= size) {
         text += Format("%1%2 %3", text.empty() ? "" : " ", seconds / size, unit);
         seconds %= size;
      }
   }
   return text.empty() ? "0 s" : text;
}

/// "456 KB (0.4 MB)".
std::string FormatMemory(const std::optional<int64_t>& kb)
{
   if (!kb) {
      return kUnsetText;
   }
   const int64_t tenths = *kb / 1024 * 10 + *kb % 1024 * 10 / 1024;
   return Format("%1 KB (%2.%3 MB)", *kb, tenths / 10, tenths % 10);
}

} // namespace

void ListEntities(Api& api, Output& output)
{
   // Scripts read the first five columns by their numbers.
   TextTable table(
      {{"TYPE"}, {"ID"}, {"NAME"}, {"STATE"}, {"PARENT"}, {"FIGURES"}, {"SINCE"}, {"REASON"}});
   for (const Entity& entity : api.GetEntities()) {
      std::vector<std::string> cells = {entity.type, entity.id, entity.name,
                                        entity.state.value_or(kUnsetText),
                                        entity.parent.value_or(kUnsetText)};
      const Freshness& freshness = entity.freshness;
      if (freshness.IsAnyMissing()) {
         cells.insert(cells.end(),
                      {freshness.state,
                       freshness.since ? FormatTime(*freshness.since, false) : kUnsetText,
                       freshness.reason});
      }
      cells.resize(8);
      table.AddRow(cells);
   }
   output.Write(table.TakeText());
}

void ListCounters(Api& api, const std::string& group, Output& output)
{
   TextTable table({{"ID", true}, {"NAME"}, {"UNIT"}, {"STATISTICS"}, {"ROLLUP"}});
   bool any = false;
   for (const Counter& counter : api.GetCounters()) {
      if (group.empty() || counter.group == group) {
         table.AddRow({ToText(counter.id), counter.group + "." + counter.name, counter.unit,
                       counter.statsType, counter.rollup});
         any = true;
      }
   }
   if (!any) {
      throw Corvax::NotFoundException(group.empty()
                                         ? "the server has no counters"
                                         : "there are no counters in the group " + group);
   }
   output.Write(table.TakeText());
}

void ListIntervals(Api& api, Output& output)
{
   TextTable table({{"NAME"}, {"PERIOD (s)", true}, {"KEPT (s)", true}, {"KEPT"}});
   table.AddRow({"real-time", ToText(api.GetRefreshRate(kHostId)), kUnsetText, kUnsetText});
   for (const Interval& interval : api.GetIntervals()) {
      table.AddRow({interval.name, ToText(interval.periodSec), ToText(interval.lengthSec),
                    FormatLength(interval.lengthSec)});
   }
   output.Write(table.TakeText());
}

void ListMetrics(Api& api, const std::string& entityId, Output& output)
{
   std::vector<Metric> metrics = api.GetMetrics(entityId);
   if (metrics.empty()) {
      throw Corvax::NotFoundException("there are no metrics of " + entityId);
   }
   std::ranges::sort(metrics);
   const MetricNames names(api.GetCounters());
   TextTable table({{"METRIC"}, {"ID", true}, {"UNIT"}});
   for (const Metric& metric : metrics) {
      table.AddRow({names.GetName(metric), ToText(metric.counterId), names.GetUnit(metric)});
   }
   output.Write(table.TakeText());
}

void ShowUsage(Api& api, const std::string& vmId, Output& output)
{
   const Usage usage = vmId.empty() ? api.GetHostUsage() : api.GetVmUsage(vmId);
   if (!usage.cpuMhz && !usage.memConsumedKb && !usage.memActiveKb) {
      throw Corvax::NotFoundException("there are no usage figures of " +
                                      (vmId.empty() ? "the host" : vmId));
   }
   std::string text = Format("CPU:              %1\nmemory consumed:  %2\n",
                             usage.cpuMhz ? ToText(*usage.cpuMhz) + " MHz" : kUnsetText,
                             FormatMemory(usage.memConsumedKb));
   if (!vmId.empty()) {
      text += Format("memory active:    %1\n", FormatMemory(usage.memActiveKb));
   }
   output.Write(text);
}

} // namespace Agentctl
