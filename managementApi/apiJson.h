#pragma once

#include "managementApi/requestText.h"
#include "quen/performanceManager.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

/// The API's types in JSON. Times are RFC 3339 in UTC; unset values, -1 in the types, are null.
namespace ManagementApi {

using Json = nlohmann::ordered_json;
using QuerySpec = Quen::PerformanceManager::QuerySpec;

Json ToJson(const Plexa::MoRef& reference);
Json ToJson(const Quen::PerformanceManager::CounterInfo& counter);
Json ToJson(const Quen::HistoricalInterval& interval);
Json ToJson(const MetricId& metricId);
Json ToJson(const Quen::PerformanceManager::ProviderSummary& summary);
/// A figure, null when it is below 0.
Json FigureToJson(int64_t figure);

/// Text of a JSON value. Bytes of names that are no UTF-8 come out as replacement characters.
std::string Print(const Json& json);

/// Appends the text of an EntityMetric or an EntityMetricCSV. Straight to text, for it has an
/// element for each sample.
void PrintTo(std::string& text, const Quen::PerformanceManager::EntityMetricBase& entityMetric);

/// Finds an entity's reference by its id; throws NotFound.
using FindEntity = std::function<Corvax::Ref<Plexa::MoRef>(const std::string& id)>;

/// The query specs of a query's body, an array of at most `maxQuerySpecs`. BadArgument names
/// the place of what is not as it must be, unknown fields included.
Corvax::Ref<Plexa::DataArray<QuerySpec>> ParseQuerySpecs(const std::string& body,
                                                         size_t maxQuerySpecs, Corvax::DateTime now,
                                                         const FindEntity& findEntity);

} // namespace ManagementApi
