#pragma once

#include "agentctl/api.h"

#include <map>

namespace Agentctl {

/// What the metrics of an answer are called.
class MetricNames {
public:
   explicit MetricNames(const std::vector<Counter>& counters);

   /// "cpu.usage:0", with the rollup behind the name ("cpu.usage.average") where another counter
   /// has the name to itself; the counter's number where the counter is not known.
   std::string GetName(const Metric& metric) const;
   /// "%", "KB/s"; the unit as it is where it has no short form.
   std::string GetUnit(const Metric& metric) const;
   /// "12.34 %" for 1234 of a percent counter; "-" for unset.
   std::string FormatValue(const Metric& metric, const std::optional<int64_t>& value) const;

private:
   bool HasRollupInName(const Counter& counter) const;

   std::map<int64_t, Counter> _counters;
};

} // namespace Agentctl
