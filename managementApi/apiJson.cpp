#include "managementApi/apiJson.h"

#include "corvax/format.h"
#include "managementApi/requestError.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace ManagementApi {

namespace {

using Corvax::DateTime;
using Corvax::Format;
using Corvax::MakeRef;
using Corvax::Ref;
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

/// Reads one query spec, field by field. `place` is its place in the body: "[3]".
class QuerySpecReader {
public:
   QuerySpecReader(std::string place, DateTime now, const FindEntity& findEntity)
      : _place(std::move(place)), _now(now), _findEntity(findEntity)
   {
   }

   Ref<QuerySpec> Read(const Json& json)
   {
      if (!json.is_object()) {
         throw BadArgument(_place, "is no object");
      }
      auto spec = MakeRef<QuerySpec>();
      for (const auto& [name, value] : json.items()) {
         if (!value.is_null()) { // as if it were not there
            ReadField(*spec, name, value);
         }
      }
      if (!spec->entity) {
         throw BadArgument(_place + ".entity", "is missing");
      }
      return spec;
   }

private:
   void ReadField(QuerySpec& spec, const std::string& name, const Json& value)
   {
      const std::string place = _place + "." + name;
      if (name == "entity") {
         spec.entity = _findEntity(ReadText(place, value));
      } else if (name == "startTime") {
         spec.startTime = ReadTime(place, value);
      } else if (name == "endTime") {
         spec.endTime = ReadTime(place, value);
      } else if (name == "maxSample") {
         spec.maxSample = ReadInt(place, value);
      } else if (name == "metricId") {
         spec.metricId = ReadMetrics(place, value);
      } else if (name == "intervalId") {
         spec.intervalId = ReadInt(place, value);
      } else if (name == "format") {
         spec.format = ReadText(place, value);
      } else {
         throw BadArgument(place, "is no field of a query spec");
      }
   }

   static std::string ReadText(const std::string& place, const Json& value)
   {
      if (!value.is_string()) {
         throw BadArgument(place, "is no string");
      }
      return value.get<std::string>();
   }

   static int32_t ReadInt(const std::string& place, const Json& value)
   {
      if (!value.is_number_integer()) {
         throw BadArgument(place, "is no integer");
      }
      return ParseInt(place, value.dump());
   }

   DateTime ReadTime(const std::string& place, const Json& value) const
   {
      return ParseTime(place, value.is_number() ? value.dump() : ReadText(place, value), _now);
   }

   static Ref<Plexa::DataArray<MetricId>> ReadMetrics(const std::string& place, const Json& value)
   {
      if (!value.is_array()) {
         throw BadArgument(place, "is no array");
      }
      auto metrics = MakeRef<Plexa::DataArray<MetricId>>();
      for (size_t i = 0; i < value.size(); ++i) {
         metrics->Append(ReadMetric(Format("%1[%2]", place, i), value[i]));
      }
      return metrics;
   }

   static Ref<MetricId> ReadMetric(const std::string& place, const Json& value)
   {
      if (!value.is_object() || !value.contains("counterId")) {
         throw BadArgument(place, "is no object with a counterId");
      }
      auto metric = MakeRef<MetricId>(0, "");
      for (const auto& [name, field] : value.items()) {
         if (name == "counterId") {
            metric->counterId = ReadInt(place + ".counterId", field);
         } else if (name == "instance") {
            metric->instance = ReadText(place + ".instance", field);
         } else {
            throw BadArgument(place + "." + name, "is no field of a metric id");
         }
      }
      return metric;
   }

   const std::string _place;
   const DateTime _now;
   const FindEntity& _findEntity;
};

/// How deep the brackets of a JSON text go; of any other text, some number.
size_t NestingDepth(std::string_view text)
{
   size_t depth = 0;
   size_t deepest = 0;
   bool inString = false;
   for (size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (inString && c == '\\') {
         ++i; // what is escaped ends no string
      } else if (c == '"') {
         inString = !inString;
      } else if (!inString && (c == '[' || c == '{')) {
         deepest = std::max(deepest, ++depth);
      } else if (!inString && (c == ']' || c == '}') && depth > 0) {
         --depth;
      }
   }
   return deepest;
}

/// Looks at the depth first by itself: the library could watch it through a callback, but then
/// takes time in the square of an array's length.
Json ParseBody(const std::string& body)
{
   constexpr size_t kMaxDepth = 16;
   if (NestingDepth(body) > kMaxDepth) {
      throw BadArgument("body", "is too deeply nested");
   }
   Json json = Json::parse(body, nullptr, false);
   if (json.is_discarded()) {
      throw BadArgument("body", "is no JSON");
   }
   return json;
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

Ref<Plexa::DataArray<QuerySpec>> ParseQuerySpecs(const std::string& body, size_t maxQuerySpecs,
                                                 DateTime now, const FindEntity& findEntity)
{
   const Json json = ParseBody(body);
   if (!json.is_array()) {
      throw BadArgument("body", "is no array of query specs");
   }
   if (json.size() > maxQuerySpecs) {
      throw BadArgument("body", Format("has %1 query specs, more than %2 in one request",
                                       json.size(), maxQuerySpecs));
   }
   // Whatever is asked for is read under the depot's lock and held in memory as a whole.
   constexpr size_t kMaxMetrics = 1000;
   size_t metrics = 0;
   auto specs = MakeRef<Plexa::DataArray<QuerySpec>>();
   for (size_t i = 0; i < json.size(); ++i) {
      specs->Append(QuerySpecReader(Format("[%1]", i), now, findEntity).Read(json[i]));
      const Plexa::DataArray<MetricId>* const metricId = (*specs)[i]->metricId.Get();
      metrics += metricId ? metricId->GetSize() : 0;
   }
   if (metrics > kMaxMetrics) {
      throw BadArgument("metricId", Format("there are %1 in all, more than %2 in one request",
                                           metrics, kMaxMetrics));
   }
   return specs;
}

} // namespace ManagementApi
