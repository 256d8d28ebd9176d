#include "agentctl/api.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

namespace Agentctl {

namespace {

using Corvax::Format;
/// Keeps the order of the members as the server wrote them.
using Json = nlohmann::ordered_json;

/// Deeper than any valid response. Bounds the stack of code that recurses over a document.
constexpr int kMaxDepth = 32;

/// Two, because the newest column may not have been written for every entity yet.
constexpr int kSamplesForNewest = 2;

/// The agent's default limit of query specs in one request.
constexpr size_t kMaxQuerySpecs = 64;

constexpr char kQueryPath[] = "/api/v1/query";

[[noreturn]] void FailInvalid(const std::string& reason)
{
   throw Corvax::Exception("the server sent an invalid response: " + reason);
}

const Json& GetField(const Json& object, const char* key)
{
   if (!object.is_object() || !object.contains(key)) {
      FailInvalid(Format("'%1' is missing", key));
   }
   return object.at(key);
}

std::string GetText(const Json& object, const char* key)
{
   const Json& field = GetField(object, key);
   if (!field.is_string()) {
      FailInvalid(Format("'%1' is not a string", key));
   }
   return field.get<std::string>();
}

std::optional<std::string> GetOptionalText(const Json& object, const char* key)
{
   return GetField(object, key).is_null() ? std::nullopt : std::optional(GetText(object, key));
}

int64_t ToNumber(const Json& value, const char* name)
{
   const bool fits = value.is_number_integer() &&
                     (!value.is_number_unsigned() || value.get<uint64_t>() <= INT64_MAX);
   if (!fits) {
      FailInvalid(Format("'%1' is not an integer", name));
   }
   return value.get<int64_t>();
}

int64_t GetNumber(const Json& object, const char* key)
{
   return ToNumber(GetField(object, key), key);
}

std::optional<int64_t> ToOptionalNumber(const Json& value, const char* name)
{
   return value.is_null() ? std::nullopt : std::optional(ToNumber(value, name));
}

std::optional<int64_t> GetOptionalNumber(const Json& object, const char* key)
{
   return ToOptionalNumber(GetField(object, key), key);
}

/// The elements of a list. The server sends null for an empty one.
const Json& ToList(const Json& value, const char* name)
{
   static const Json none = Json::array();
   if (value.is_null()) {
      return none;
   }
   if (!value.is_array()) {
      FailInvalid(Format("'%1' is not a list", name));
   }
   return value;
}

/// A temporary would be destroyed before its elements are used.
const Json& ToList(Json&& value, const char* name) = delete;

Json Parse(const HttpResponse& response)
{
   const auto checkDepth = [](int depth, Json::parse_event_t, Json&) {
      if (depth > kMaxDepth) {
         FailInvalid("the nesting is too deep");
      }
      return true;
   };
   try {
      return Json::parse(response.body, checkDepth);
   } catch (const Json::exception&) {
      FailInvalid(Format("the body is not JSON (HTTP status %1)", response.status));
   }
}

/// The envelope of a successful response. If the server refused the request, throws its message.
Json GetEnvelope(const HttpResponse& response)
{
   Json envelope = Parse(response);
   if (GetText(envelope, "status") == "success") {
      GetField(envelope, "data");
      return envelope;
   }
   const Json& error = GetField(envelope, "error");
   const std::string message = GetText(error, "message");
   throw Corvax::Exception(message.empty() ? GetText(error, "type") : message);
}

Json GetData(HttpClient& client, const std::string& path)
{
   return GetEnvelope(client.Get(path, kJsonType)).at("data");
}

Corvax::DateTime GetTime(const Json& object, const char* key)
{
   Corvax::DateTime time;
   if (!Corvax::DateTime::Parse(GetText(object, key), time)) {
      FailInvalid(Format("'%1' is not a valid time", key));
   }
   return time;
}

/// Agents of older versions do not send it, and no agent does for hosts and pools.
Freshness GetFreshness(const Json& entity)
{
   Freshness freshness;
   if (entity.contains("freshness")) {
      const Json& field = entity.at("freshness");
      freshness.state = GetText(field, "state");
      if (field.contains("since")) {
         freshness.since = GetTime(field, "since");
      }
      if (field.contains("reason")) {
         freshness.reason = GetText(field, "reason");
      }
   }
   return freshness;
}

Metric ToMetric(const Json& object)
{
   return {GetNumber(object, "counterId"), GetText(object, "instance")};
}

Series ToSeries(const Json& object, size_t count)
{
   Series series = {ToMetric(GetField(object, "id")), {}};
   for (const Json& value : ToList(GetField(object, "value"), "value")) {
      series.values.push_back(ToOptionalNumber(value, "value"));
   }
   if (series.values.size() != count) {
      FailInvalid("a series does not have one value per time stamp");
   }
   return series;
}

EntitySeries ToEntitySeries(const Json& object)
{
   EntitySeries result = {GetText(GetField(object, "entity"), "id"), {}, {}};
   for (const Json& sample : ToList(GetField(object, "sampleInfo"), "sampleInfo")) {
      result.times.push_back(GetTime(sample, "timestamp"));
   }
   for (const Json& series : ToList(GetField(object, "value"), "value")) {
      result.series.push_back(ToSeries(series, result.times.size()));
   }
   return result;
}

std::vector<EntitySeries> ToEntitySeriesList(const Json& data)
{
   std::vector<EntitySeries> result;
   for (const Json& object : ToList(data, "data")) {
      result.push_back(ToEntitySeries(object));
   }
   return result;
}

std::string GetQueryPath(const QuerySpec& spec)
{
   std::string path = std::string(kQueryPath) + "?entity=" + PercentEncode(spec.entityId);
   for (const std::string& metric : spec.metrics) {
      path += "&metric=" + PercentEncode(metric);
   }
   if (!spec.from.empty()) {
      path += "&startTime=" + PercentEncode(spec.from);
   }
   if (!spec.to.empty()) {
      path += "&endTime=" + PercentEncode(spec.to);
   }
   if (spec.maxSample) {
      path += Format("&maxSample=%1", *spec.maxSample);
   }
   return path + Format("&intervalId=%1", spec.intervalSec);
}

} // namespace

std::vector<Counter> Api::GetCounters()
{
   std::vector<Counter> counters;
   const Json data = GetData(_client, "/api/v1/counters");
   for (const Json& item : ToList(data, "data")) {
      counters.push_back({GetNumber(item, "id"), GetText(item, "group"), GetText(item, "name"),
                          GetText(item, "unit"), GetText(item, "statsType"),
                          GetText(item, "rollup")});
   }
   return counters;
}

std::vector<Interval> Api::GetIntervals()
{
   std::vector<Interval> intervals;
   const Json data = GetData(_client, "/api/v1/intervals");
   for (const Json& item : ToList(data, "data")) {
      intervals.push_back(
         {GetText(item, "name"), GetNumber(item, "samplingPeriod"), GetNumber(item, "length")});
   }
   return intervals;
}

std::vector<Entity> Api::GetEntities()
{
   std::vector<Entity> entities;
   const Json data = GetData(_client, "/api/v1/entities");
   for (const Json& item : ToList(data, "data")) {
      entities.push_back({GetText(item, "type"), GetText(item, "id"), GetText(item, "name"),
                          GetOptionalText(item, "state"), GetOptionalText(item, "parent"),
                          GetFreshness(item)});
   }
   return entities;
}

std::vector<Metric> Api::GetMetrics(const std::string& entityId)
{
   std::vector<Metric> metrics;
   const Json data = GetData(_client, "/api/v1/metrics?entity=" + PercentEncode(entityId));
   for (const Json& item : ToList(data, "data")) {
      metrics.push_back(ToMetric(item));
   }
   return metrics;
}

int64_t Api::GetRefreshRate(const std::string& entityId)
{
   const Json provider = GetData(_client, "/api/v1/providers/" + PercentEncode(entityId));
   const int64_t periodSec = GetNumber(provider, "refreshRate");
   if (periodSec <= 0) {
      FailInvalid("the refresh rate is not positive");
   }
   return periodSec;
}

std::vector<EntitySeries> Api::Query(const QuerySpec& spec)
{
   const Json data = GetData(_client, GetQueryPath(spec));
   return ToEntitySeriesList(data);
}

std::string Api::QueryCsv(const QuerySpec& spec)
{
   HttpResponse response = _client.Get(GetQueryPath(spec), kCsvType);
   if (response.status != 200) {
      GetEnvelope(response); // throws the server's message
      FailInvalid(Format("the body is not CSV (HTTP status %1)", response.status));
   }
   return std::move(response.body);
}

std::string Api::QueryJson(const QuerySpec& spec, bool& hasData)
{
   const Json envelope = GetEnvelope(_client.Get(GetQueryPath(spec), kJsonType));
   hasData = !envelope.at("data").empty();
   return envelope.dump(2, ' ', true);
}

std::vector<EntitySeries> Api::QueryNewest(const std::vector<Entity>& entities,
                                           const std::vector<Metric>& metrics, int64_t intervalSec)
{
   Json metricIds = Json::array();
   for (const Metric& metric : metrics) {
      metricIds.push_back({{"counterId", metric.counterId}, {"instance", metric.instance}});
   }
   std::vector<EntitySeries> result;
   for (size_t first = 0; first < entities.size(); first += kMaxQuerySpecs) {
      Json specs = Json::array();
      const size_t end = std::min(first + kMaxQuerySpecs, entities.size());
      for (size_t i = first; i < end; ++i) {
         specs.push_back({{"entity", entities[i].id},
                          {"maxSample", kSamplesForNewest},
                          {"metricId", metricIds},
                          {"intervalId", intervalSec}});
      }
      const Json envelope = GetEnvelope(_client.Post(kQueryPath, specs.dump()));
      std::ranges::move(ToEntitySeriesList(envelope.at("data")), std::back_inserter(result));
   }
   return result;
}

Usage Api::GetHostUsage()
{
   const Json data = GetData(_client, "/api/v1/usage/host");
   return {GetOptionalNumber(data, "cpuUsageMhz"), GetOptionalNumber(data, "memConsumedKB"), {}};
}

Usage Api::GetVmUsage(const std::string& vmId)
{
   const Json data = GetData(_client, "/api/v1/usage/vm/" + PercentEncode(vmId));
   return {GetOptionalNumber(data, "cpuUsageMhz"), GetOptionalNumber(data, "memConsumedKB"),
           GetOptionalNumber(data, "memActiveKB")};
}

} // namespace Agentctl
