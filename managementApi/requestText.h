#pragma once

#include "corvax/dateTime.h"
#include "http/message.h"
#include "quen/performanceManager.h"

#include <string>
#include <string_view>

/// The texts in requests: times, numbers and metrics.
///
/// Errors: BadArgument, naming the argument, if a text cannot be parsed.
namespace ManagementApi {

using Counters = Plexa::DataArray<Quen::PerformanceManager::CounterInfo>;
using MetricId = Quen::PerformanceManager::MetricId;

/// The refusal of a request for one of its arguments: 400 with "ARGUMENT: REASON".
Http::Refusal BadArgument(const std::string& argument, const std::string& reason);

/// RFC 3339 ("2026-11-21T09:05:00Z"), seconds since the epoch ("1795251900", decimals allowed), or
/// relative to `now`: "now", "-10m", with the units s, m, h and d.
Corvax::DateTime ParseTime(const std::string& argument, std::string_view text,
                           Corvax::DateTime now);

/// A 32-bit integer in decimal.
int32_t ParseInt(const std::string& argument, std::string_view text);

/// "group.name[.rollup][:instance]" or "counter[:instance]" with a counter number. Without a rollup
/// it is the stat's composite counter, or else its only one.
Corvax::Ref<MetricId> ParseMetric(const std::string& argument, const std::string& text,
                                  const Counters& counters);

/// The text that ParseMetric parses into this metric; with the number if the counter is unknown.
std::string FormatMetric(const MetricId& metricId, const Counters& counters);

/// Null if there is none.
const Quen::PerformanceManager::CounterInfo* FindCounter(int32_t counterId,
                                                         const Counters& counters);

/// As the API spells them: "none", "average", ...; "absolute", "delta", "rate".
const char* RollupName(Quen::PerformanceManager::CounterInfo::RollupType rollup);
const char* StatsTypeName(Quen::PerformanceManager::CounterInfo::StatsType type);

} // namespace ManagementApi
