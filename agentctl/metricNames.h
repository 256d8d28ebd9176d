#pragma once

#include "agentctl/api.h"

#include <map>

namespace Agentctl {

/// Names and units of metrics.
class MetricNames {
public:
   explicit MetricNames(const std::vector<Counter>& counters);

   /// "cpu.usage:0", or with the rollup ("cpu.usage.average:0") if the short name means another
   /// counter. An unknown counter appears as its id.
   std::string GetName(const Metric& metric) const;
   /// "%", "KB/s", or the unit as the server names it if it has no short form.
   std::string GetUnit(const Metric& metric) const;
   /// "12.34 %" for 1234 of a percent counter.
   std::string FormatValue(const Metric& metric, const std::optional<int64_t>& value) const;

private:
   bool HasRollupInName(const Counter& counter) const;

   std::map<int64_t, Counter> _counters;
};

} // namespace Agentctl
