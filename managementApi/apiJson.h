#pragma once

#include "managementApi/requestText.h"
#include "quen/inventory.h"
#include "quen/performanceManager.h"

#include <nlohmann/json.hpp>

#include <string>

/// The API's types as JSON. Times are RFC 3339 in UTC; unset values, -1 in the types, are null.
namespace ManagementApi {

using Json = nlohmann::ordered_json;

Json ToJson(const Plexa::MoRef& reference);
Json ToJson(const Quen::PerformanceManager::CounterInfo& counter);
Json ToJson(const Quen::HistoricalInterval& interval);
Json ToJson(const MetricId& metricId);
Json ToJson(const Quen::PerformanceManager::ProviderSummary& summary);
/// Without `since` or `reason` where there is none.
Json ToJson(const Quen::Vm::Freshness& freshness);
/// Null if the figure is negative, that is, unset.
Json FigureToJson(int64_t figure);

/// The text of a JSON value, with a line feed. Bytes that are not UTF-8 become replacement
/// characters.
std::string Print(const Json& json);

using QueryResults = Plexa::DataArray<Quen::PerformanceManager::EntityMetricBase>;

/// Appends the text of an array of EntityMetric and EntityMetricCSV. Without a JSON value in
/// between, which would allocate for each sample.
void PrintTo(std::string& text, const QueryResults& results);

} // namespace ManagementApi
