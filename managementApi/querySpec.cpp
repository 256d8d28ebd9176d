#include "managementApi/querySpec.h"

#include "corvax/format.h"
#include "managementApi/agentObjects.h"
#include "managementApi/apiJson.h"
#include "managementApi/urlParameters.h"

#include <algorithm>
#include <string_view>

namespace ManagementApi {

namespace {

using Corvax::DateTime;
using Corvax::Format;
using Corvax::MakeRef;
using Corvax::Ref;
using MetricIds = Plexa::DataArray<MetricId>;

constexpr char kAllInstances[] = "*";

/// Reads one query spec, field by field. `place` is its place in the body: "[3]".
class QuerySpecReader {
public:
   QuerySpecReader(std::string place, DateTime now, const Counters& counters)
      : _place(std::move(place)), _now(now), _counters(counters)
   {
   }

   Ref<QuerySpec> Read(const Json& json)
   {
      if (!json.is_object()) {
         throw BadArgument(_place, "is not an object");
      }
      auto spec = MakeRef<QuerySpec>();
      for (const auto& [name, value] : json.items()) {
         if (!value.is_null()) { // the same as an absent field
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
         spec.entity = FindEntity(ReadText(place, value));
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
         throw BadArgument(place, "is not a field of a query spec");
      }
   }

   static std::string ReadText(const std::string& place, const Json& value)
   {
      if (!value.is_string()) {
         throw BadArgument(place, "is not a string");
      }
      return value.get<std::string>();
   }

   static int32_t ReadInt(const std::string& place, const Json& value)
   {
      if (!value.is_number_integer()) {
         throw BadArgument(place, "is not an integer");
      }
      return ParseInt(place, value.dump());
   }

   DateTime ReadTime(const std::string& place, const Json& value) const
   {
      return ParseTime(place, value.is_number() ? value.dump() : ReadText(place, value), _now);
   }

   Ref<MetricIds> ReadMetrics(const std::string& place, const Json& value) const
   {
      if (!value.is_array()) {
         throw BadArgument(place, "is not an array");
      }
      auto metrics = MakeRef<MetricIds>();
      for (size_t i = 0; i < value.size(); ++i) {
         metrics->Append(ReadMetric(Format("%1[%2]", place, i), value[i]));
      }
      return metrics;
   }

   Ref<MetricId> ReadMetric(const std::string& place, const Json& value) const
   {
      if (!value.is_object() || !value.contains("counterId")) {
         throw BadArgument(place, "is not an object with a counterId");
      }
      auto metric = MakeRef<MetricId>(0, "");
      for (const auto& [name, field] : value.items()) {
         if (name == "counterId") {
            metric->counterId = ReadInt(place + ".counterId", field);
         } else if (name == "instance") {
            metric->instance = ReadText(place + ".instance", field);
         } else {
            throw BadArgument(Format("%1.%2", place, name), "is not a field of a metric id");
         }
      }
      // The performance manager replaces "*" by the instances with data, so for an unknown counter
      // it would return nothing instead of refusing it.
      if (metric->instance == kAllInstances &&
          FindCounter(metric->counterId, _counters) == nullptr) {
         throw BadArgument(place + ".counterId",
                           Format("there is no counter %1", metric->counterId));
      }
      return metric;
   }

   const std::string _place;
   const DateTime _now;
   const Counters& _counters;
};

/// How deep the brackets of a JSON text are nested; some number for any other text.
size_t NestingDepth(std::string_view text)
{
   size_t depth = 0;
   size_t deepest = 0;
   bool inString = false;
   for (size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (inString && c == '\\') {
         ++i; // an escaped quote does not end the string
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

/// Checks the depth separately: the library can do it in a callback, but then an array takes time
/// quadratic in its length.
Json ParseBody(const std::string& body)
{
   constexpr size_t kMaxDepth = 16;
   if (NestingDepth(body) > kMaxDepth) {
      throw BadArgument("body", "is nested too deeply");
   }
   Json json = Json::parse(body, nullptr, false);
   if (json.is_discarded()) {
      throw BadArgument("body", "is not JSON");
   }
   return json;
}

} // namespace

Ref<QuerySpecs> ReadQuerySpec(const Http::Request& request, const Counters& counters)
{
   const UrlParameters parameters(
      request, {"entity", "metric", "startTime", "endTime", "maxSample", "intervalId", "format"});
   const DateTime now = DateTime::Now();
   auto spec = MakeRef<QuerySpec>();
   spec->entity = FindEntity(parameters.GetRequired("entity"));
   spec->startTime = parameters.GetTime("startTime", now);
   spec->endTime = parameters.GetTime("endTime", now);
   spec->maxSample = parameters.GetInt("maxSample");
   spec->intervalId = parameters.GetInt("intervalId");
   spec->format = parameters.Get("format");
   spec->metricId = MakeRef<MetricIds>();
   for (const std::string& metric : parameters.GetAll("metric")) {
      spec->metricId->Append(ParseMetric("metric", metric, counters));
   }
   auto specs = MakeRef<QuerySpecs>();
   specs->Append(spec);
   return specs;
}

Ref<QuerySpecs> ParseQuerySpecs(const std::string& body, size_t maxQuerySpecs,
                                const Counters& counters)
{
   const Json json = ParseBody(body);
   if (!json.is_array()) {
      throw BadArgument("body", "is not an array of query specs");
   }
   if (json.size() > maxQuerySpecs) {
      throw BadArgument(
         "body", Format("has %1 query specs; a request may have %2", json.size(), maxQuerySpecs));
   }
   // A spec is read under the depot's lock, and all results are held in memory.
   constexpr size_t kMaxMetrics = 1000;
   const DateTime now = DateTime::Now();
   size_t metrics = 0;
   auto specs = MakeRef<QuerySpecs>();
   for (size_t i = 0; i < json.size(); ++i) {
      const Ref<QuerySpec> spec = QuerySpecReader(Format("[%1]", i), now, counters).Read(json[i]);
      metrics += spec->metricId ? spec->metricId->GetSize() : 0;
      specs->Append(spec);
   }
   if (metrics > kMaxMetrics) {
      throw BadArgument(
         "metricId", Format("has %1 metrics in all; a request may have %2", metrics, kMaxMetrics));
   }
   return specs;
}

} // namespace ManagementApi
