#include "managementApi/apiJson.h"

#include <charconv>

namespace ManagementApi {

namespace {

using Quen::PerformanceManager;

std::string ToText(const Json& json)
{
   return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendNumber(std::string& text, int64_t number)
{
   char digits[24];
   const auto end = std::to_chars(digits, digits + sizeof digits, number);
   text.append(digits, end.ptr);
}

template <class T, class Append>
void AppendArray(std::string& text, const T& items, Append append)
{
   text += '[';
   for (const auto& item : items) {
      append(item);
      text += ',';
   }
   if (text.back() == ',') {
      text.pop_back();
   }
   text += ']';
}

void AppendSampleInfo(std::string& text, const PerformanceManager::SampleInfo& info)
{
   text += R"({"timestamp":")";
   text += info.timestamp.ToString();
   text += R"(","interval":)";
   AppendNumber(text, info.interval);
   text += '}';
}

void AppendSeries(std::string& text, const PerformanceManager::MetricSeries& series)
{
   text += R"({"id":)" + ToText(ToJson(*series.id)) + R"(,"value":)";
   if (const auto* const csv = dynamic_cast<const PerformanceManager::MetricSeriesCSV*>(&series)) {
      text += ToText(csv->value);
   } else {
      const auto& ints = dynamic_cast<const PerformanceManager::IntSeries&>(series);
      AppendArray(text, ints.value, [&text](int64_t value) {
         if (value < 0) {
            text += "null";
         } else {
            AppendNumber(text, value);
         }
      });
   }
   text += '}';
}

} // namespace

Json FigureToJson(int64_t figure)
{
   return figure < 0 ? Json(nullptr) : Json(figure);
}

Json ToJson(const Plexa::MoRef& reference)
{
   return {{"type", std::string(reference.GetType().name)}, {"id", reference.GetId()}};
}

Json ToJson(const PerformanceManager::CounterInfo& counter)
{
   Json json = {{"id", counter.key},
                {"group", counter.groupInfo->key},
                {"name", counter.nameInfo->key},
                {"unit", counter.unitInfo->key},
                {"statsType", StatsTypeName(counter.statsType)},
                {"rollup", RollupName(counter.rollupType)},
                {"associated", nullptr}};
   if (counter.associatedCounterId) {
      json["associated"] = *counter.associatedCounterId;
   }
   return json;
}

Json ToJson(const Quen::HistoricalInterval& interval)
{
   return {{"samplingPeriod", interval.samplingPeriod},
           {"name", interval.name},
           {"length", interval.length}};
}

Json ToJson(const MetricId& metricId)
{
   return {{"counterId", metricId.counterId}, {"instance", metricId.instance}};
}

Json ToJson(const PerformanceManager::ProviderSummary& summary)
{
   Json json = {{"entity", ToJson(*summary.entity)},
                {"currentSupported", summary.currentSupported},
                {"summarySupported", summary.summarySupported},
                {"refreshRate", nullptr}};
   if (summary.refreshRate) {
      json["refreshRate"] = *summary.refreshRate;
   }
   return json;
}

void PrintTo(std::string& text, const PerformanceManager::EntityMetricBase& entityMetric)
{
   const auto appendSeries = [&text](const auto& series) { AppendSeries(text, *series); };
   text += R"({"entity":)" + ToText(ToJson(*entityMetric.entity));
   if (const auto* const csv =
          dynamic_cast<const PerformanceManager::EntityMetricCSV*>(&entityMetric)) {
      text += R"(,"sampleInfoCSV":)" + ToText(csv->sampleInfoCSV) + R"(,"value":)";
      AppendArray(text, *csv->value, appendSeries);
   } else {
      const auto& normal = dynamic_cast<const PerformanceManager::EntityMetric&>(entityMetric);
      text += R"(,"sampleInfo":)";
      AppendArray(text, *normal.sampleInfo,
                  [&text](const auto& info) { AppendSampleInfo(text, *info); });
      text += R"(,"value":)";
      AppendArray(text, *normal.value, appendSeries);
   }
   text += '}';
}

std::string Print(const Json& json)
{
   return ToText(json) + "\n";
}

} // namespace ManagementApi
