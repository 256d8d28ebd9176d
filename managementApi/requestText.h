#pragma once

#include "corvax/dateTime.h"
#include "quen/performanceManager.h"

#include <string>
#include <string_view>

/// Texts of requests: times, numbers and metrics. What cannot be read is a BadArgument that names
/// the argument.
namespace ManagementApi {

using Counters = Plexa::DataArray<Quen::PerformanceManager::CounterInfo>;
using MetricId = Quen::PerformanceManager::MetricId;

/// RFC 3339 ("2026-11-21T09:05:00Z"), seconds since the epoch ("1795251900", also with decimals),
/// or relative to `now`: "now", "-10m", with the units s, m, h and d.
Corvax::DateTime ParseTime(const std::string& argument, std::string_view text,
                           Corvax::DateTime now);

/// A decimal integer of 32 bits.
int32_t ParseInt(const std::string& argument, std::string_view text);

/// "group.name[.rollup][:instance]" or "counter[:instance]" with a counter number. Without a rollup
/// the stat's own counter is meant: the one for its raw values where it has such a one.
Corvax::Ref<MetricId> ParseMetric(const std::string& argument, const std::string& text,
                                  const Counters& counters);

/// The text that ParseMetric reads as this metric; the number where the counter is unknown.
std::string FormatMetric(const MetricId& metricId, const Counters& counters);

/// As the API spells them: "none", "average", ...; "absolute", "delta", "rate".
const char* RollupName(Quen::PerformanceManager::CounterInfo::RollupType rollup);
const char* StatsTypeName(Quen::PerformanceManager::CounterInfo::StatsType type);

} // namespace ManagementApi
