#include "managementApi/apiRoutes.h"

#include "agentdCommon/haPerformanceManager.h"
#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "guestsvc/guestsvc.h"
#include "managementApi/csvTable.h"
#include "managementApi/openApi.h"
#include "managementApi/requestError.h"
#include "plexa/fault.h"
#include "quen/inventory.h"

#include <algorithm>

namespace ManagementApi {

namespace {

using AgentdCommon::HaPerformanceManager;
using AgentdCommon::Long;
using Corvax::DateTime;
using Corvax::Format;
using Corvax::MakeRef;
using Corvax::Ref;
using Quen::PerformanceManager;

constexpr int32_t kLatestValues = 0; // as interval

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

Ref<HaPerformanceManager> GetPerformanceManager()
{
   return Registry().LookupObject<HaPerformanceManager>(AgentdCommon::moid_perfmgr);
}

Ref<Counters> GetAllCounters()
{
   Ref<Counters> counters;
   GetPerformanceManager()->GetPerfCounter(counters);
   return counters;
}

Ref<Plexa::MoRef> FindEntityById(const std::string& id)
{
   Ref<Quen::ManagedEntity> entity;
   if (!Registry().TryLookupObject(id, entity)) {
      throw NotFound(Format("There is no entity '%1'", id));
   }
   return entity->GetMoRef();
}

Ref<Plexa::MoRef> HostReference()
{
   return FindEntityById(AgentdCommon::moid_hostsystem);
}

int32_t GetRealTimeInterval(Plexa::MoRef* entity)
{
   Ref<PerformanceManager::ProviderSummary> summary;
   GetPerformanceManager()->QueryProviderSummary(entity, summary);
   return summary->refreshRate.value_or(0);
}

/// The query parameters of a request: each of the allowed ones, and no other.
class Parameters {
public:
   Parameters(const Http::Request& request, std::initializer_list<std::string_view> allowed)
      : _query(request.query)
   {
      for (const auto& [name, value] : _query) {
         if (std::ranges::find(allowed, name) == allowed.end()) {
            throw BadArgument(name, "is no parameter of this route");
         }
      }
   }

   std::vector<std::string> GetAll(std::string_view name) const
   {
      std::vector<std::string> values;
      for (const auto& [present, value] : _query) {
         if (present == name) {
            values.push_back(value);
         }
      }
      return values;
   }

   std::optional<std::string> Get(const std::string& name) const
   {
      const std::vector<std::string> values = GetAll(name);
      if (values.size() > 1) {
         throw BadArgument(name, "stands more than once");
      }
      return values.empty() ? std::nullopt : std::optional(values.front());
   }

   std::string GetRequired(const std::string& name) const
   {
      const std::optional<std::string> value = Get(name);
      if (!value) {
         throw BadArgument(name, "is missing");
      }
      return *value;
   }

   std::optional<DateTime> GetTime(const std::string& name, DateTime now) const
   {
      const std::optional<std::string> value = Get(name);
      return value ? std::optional(ParseTime(name, *value, now)) : std::nullopt;
   }

   std::optional<int32_t> GetInt(const std::string& name) const
   {
      const std::optional<std::string> value = Get(name);
      return value ? std::optional(ParseInt(name, *value)) : std::nullopt;
   }

private:
   const std::vector<std::pair<std::string, std::string>>& _query;
};

void Answer(Http::Response& response, Json data)
{
   response.body = Print({{"status", "success"}, {"data", std::move(data)}});
}

void CheckInterval(int32_t intervalId, Plexa::MoRef* entity)
{
   Ref<Plexa::DataArray<Quen::HistoricalInterval>> historical;
   GetPerformanceManager()->GetHistoricalInterval(historical);
   const int32_t realTime = GetRealTimeInterval(entity);
   const bool isHistorical = std::ranges::any_of(*historical, [intervalId](const auto& interval) {
      return interval->samplingPeriod == intervalId;
   });
   if (intervalId != kLatestValues && intervalId != realTime && !isHistorical) {
      throw BadArgument("intervalId",
                        Format("%1 is no interval; use %2 (real time), a historical one "
                               "(see /api/v1/intervals) or 0 (latest values)",
                               intervalId, realTime));
   }
}

/// Tells what the fault of the operation itself would not: which argument, and why.
void CheckQuerySpec(const QuerySpec& spec, const Counters& counters)
{
   if (spec.startTime && spec.endTime && *spec.startTime >= *spec.endTime) {
      throw BadArgument("startTime", "is not before endTime");
   }
   if (spec.maxSample && *spec.maxSample < 1) {
      throw BadArgument("maxSample", Format("%1 is below 1", *spec.maxSample));
   }
   if (spec.format && *spec.format != PerformanceManager::FORMAT_NORMAL &&
       *spec.format != PerformanceManager::FORMAT_CSV) {
      throw BadArgument("format", Format("'%1' is neither normal nor csv", *spec.format));
   }
   if (spec.intervalId) {
      CheckInterval(*spec.intervalId, spec.entity.Get());
   }
   if (spec.intervalId == kLatestValues && (!spec.metricId || spec.metricId->IsEmpty())) {
      throw BadArgument("metricId", "latest values are given of named metrics only");
   }
   if (!spec.metricId) {
      return;
   }
   for (const Ref<MetricId>& metric : *spec.metricId) {
      const bool known = std::ranges::any_of(
         counters, [&metric](const auto& counter) { return counter->key == metric->counterId; });
      if (!known) {
         throw BadArgument("metricId", Format("there is no counter %1", metric->counterId));
      }
   }
}

const char* ErrorType(int status)
{
   switch (status) {
   case 404:
      return "NotFound";
   case 405:
      return "MethodNotAllowed";
   case 408:
      return "RequestTimeout";
   case 413:
      return "PayloadTooLarge";
   case 500:
      return "InternalError";
   case 501:
      return "NotImplemented";
   case 503:
      return "Unavailable";
   default:
      return "InvalidArgument";
   }
}

const char* PowerStateName(Quen::Vm::PowerState state)
{
   switch (state) {
   case Quen::Vm::PowerState::POWERED_OFF:
      return "poweredOff";
   case Quen::Vm::PowerState::POWERED_ON:
      return "poweredOn";
   case Quen::Vm::PowerState::SUSPENDED:
      return "suspended";
   }
   return "unknown";
}

Json EntityToJson(Quen::ManagedEntity& entity)
{
   Json json = ToJson(*entity.GetMoRef());
   json["name"] = entity.GetName();
   json["state"] = nullptr;
   json["parent"] = nullptr;
   if (auto* const vm = dynamic_cast<Guestsvc::HaVirtualMachine*>(&entity)) {
      const Corvax::Locker lock(vm);
      json["state"] = PowerStateName(vm->GetRuntime()->GetPowerState());
   }
   if (const Ref<Plexa::MoRef> parent = entity.GetParent()) {
      json["parent"] = parent->GetId();
   }
   return json;
}

} // namespace

const ApiRoutes::RouteEntry ApiRoutes::kRoutes[] = {
   {"GET", "/api/v1/counters", &ApiRoutes::GetCounters},
   {"GET", "/api/v1/intervals", &ApiRoutes::GetIntervals},
   {"GET", "/api/v1/entities", &ApiRoutes::GetEntities},
   {"GET", "/api/v1/providers/{entity}", &ApiRoutes::GetProvider},
   {"GET", "/api/v1/metrics", &ApiRoutes::GetMetrics},
   {"GET", "/api/v1/query", &ApiRoutes::GetQuery},
   {"POST", "/api/v1/query", &ApiRoutes::PostQuery},
   {"GET", "/api/v1/usage/host", &ApiRoutes::GetHostUsage},
   {"GET", "/api/v1/usage/vm/{id}", &ApiRoutes::GetVmUsage},
   {"GET", "/-/healthy", &ApiRoutes::GetHealthy},
   {"GET", "/-/ready", &ApiRoutes::GetReady},
   {"GET", "/api/v1/openapi.json", &ApiRoutes::GetOpenApi},
};

ApiRoutes::ApiRoutes(size_t maxQuerySpecs, Corvax::Logger* logger)
   : _maxQuerySpecs(maxQuerySpecs), _logger(logger)
{
}

void ApiRoutes::AddRoutes(Http::Server& server) const
{
   for (const RouteEntry& route : kRoutes) {
      server.Route(
         route.method, route.pattern,
         [this, handler = route.handler](const Http::Request& request, Http::Response& response) {
            Serve(handler, request, response);
         });
   }
}

std::vector<std::pair<std::string, std::string>> ApiRoutes::GetRoutes()
{
   std::vector<std::pair<std::string, std::string>> routes;
   for (const RouteEntry& route : kRoutes) {
      routes.emplace_back(route.method, route.pattern);
   }
   return routes;
}

void ApiRoutes::FormatError(int status, const std::string& message, Http::Response& response)
{
   response.status = status;
   response.contentType = "application/json";
   response.body =
      Print({{"status", "error"}, {"error", {{"type", ErrorType(status)}, {"message", message}}}});
}

void ApiRoutes::Serve(Handler handler, const Http::Request& request, Http::Response& response) const
{
   try {
      (this->*handler)(request, response);
   } catch (const RequestError& e) {
      FormatError(e.GetStatus(), e.GetMessage(), response);
   } catch (const Plexa::Fault::InvalidArgument::Exception&) {
      FormatError(400, "An argument is not acceptable to the operation", response);
   } catch (const Plexa::Fault::NotImplemented::Exception& e) {
      FormatError(501, e.GetMessage(), response);
   } catch (const Corvax::Exception& e) {
      _logger->Log(Corvax::kLogError, "%1 %2 failed: %3", request.method, request.path,
                   e.GetMessage());
      FormatError(500, e.GetMessage(), response);
   }
}

void ApiRoutes::GetCounters(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {"id"});
   const std::vector<std::string> ids = parameters.GetAll("id");
   const Ref<Counters> all = GetAllCounters();
   Json data = Json::array();
   if (ids.empty()) {
      std::vector<Ref<PerformanceManager::CounterInfo>> sorted(all->begin(), all->end());
      std::ranges::sort(sorted, {}, [](const auto& counter) { return counter->key; });
      for (const auto& counter : sorted) {
         data.push_back(ToJson(*counter));
      }
      Answer(response, std::move(data));
      return;
   }
   std::vector<int32_t> counterIds;
   for (const std::string& id : ids) {
      counterIds.push_back(ParseMetric("id", id, *all)->counterId);
   }
   Ref<Counters> counters;
   GetPerformanceManager()->QueryCounter(counterIds, counters);
   for (const auto& counter : *counters) {
      data.push_back(ToJson(*counter));
   }
   Answer(response, std::move(data));
}

void ApiRoutes::GetIntervals(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   Ref<Plexa::DataArray<Quen::HistoricalInterval>> intervals;
   GetPerformanceManager()->GetHistoricalInterval(intervals);
   Json data = Json::array();
   for (const auto& interval : *intervals) {
      data.push_back(ToJson(*interval));
   }
   Answer(response, std::move(data));
}

void ApiRoutes::GetEntities(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   Json data = Json::array();
   for (const auto& [id, object] : Registry().GetAll()) {
      if (const auto entity = Corvax::RefCast<Quen::ManagedEntity>(object)) {
         data.push_back(EntityToJson(*entity));
      }
   }
   Answer(response, std::move(data));
}

void ApiRoutes::GetProvider(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   const Ref<Plexa::MoRef> entity = FindEntityById(request.pathParameters.at(0));
   Ref<PerformanceManager::ProviderSummary> summary;
   GetPerformanceManager()->QueryProviderSummary(entity.Get(), summary);
   Answer(response, ToJson(*summary));
}

void ApiRoutes::GetMetrics(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {"entity", "begin", "end", "interval"});
   const DateTime now = DateTime::Now();
   const Ref<Plexa::MoRef> entity = FindEntityById(parameters.GetRequired("entity"));
   const std::optional<DateTime> begin = parameters.GetTime("begin", now);
   const std::optional<DateTime> end = parameters.GetTime("end", now);
   const std::optional<int32_t> interval = parameters.GetInt("interval");
   if (begin && end && *begin >= *end) {
      throw BadArgument("begin", "is not before end");
   }
   Ref<Plexa::DataArray<MetricId>> metrics;
   GetPerformanceManager()->QueryAvailableMetric(entity.Get(), begin, end, interval, metrics);
   Json data = nullptr;
   if (metrics) {
      data = Json::array();
      for (const Ref<MetricId>& metric : *metrics) {
         data.push_back(ToJson(*metric));
      }
   }
   Answer(response, std::move(data));
}

void ApiRoutes::GetQuery(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(
      request, {"entity", "metric", "startTime", "endTime", "maxSample", "intervalId", "format"});
   const DateTime now = DateTime::Now();
   auto spec = MakeRef<QuerySpec>();
   spec->entity = FindEntityById(parameters.GetRequired("entity"));
   spec->startTime = parameters.GetTime("startTime", now);
   spec->endTime = parameters.GetTime("endTime", now);
   spec->maxSample = parameters.GetInt("maxSample");
   spec->intervalId = parameters.GetInt("intervalId");
   spec->format = parameters.Get("format");
   spec->metricId = MakeRef<Plexa::DataArray<MetricId>>();
   const Ref<Counters> counters = GetAllCounters();
   for (const std::string& metric : parameters.GetAll("metric")) {
      spec->metricId->Append(ParseMetric("metric", metric, *counters));
   }
   QuerySpecs specs;
   specs.Append(spec);
   AnswerQuery(request, specs, response);
}

void ApiRoutes::PostQuery(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   const Ref<QuerySpecs> specs =
      ParseQuerySpecs(request.body, _maxQuerySpecs, DateTime::Now(), FindEntityById);
   AnswerQuery(request, *specs, response);
}

void ApiRoutes::AnswerQuery(const Http::Request& request, QuerySpecs& specs,
                            Http::Response& response) const
{
   const bool asTable = request.accept.find("text/csv") != std::string::npos;
   const Ref<Counters> counters = GetAllCounters();
   for (const Ref<QuerySpec>& spec : specs) {
      CheckQuerySpec(*spec, *counters);
      if (asTable) {
         spec->format = PerformanceManager::FORMAT_NORMAL;
      }
   }
   Ref<QueryResults> results;
   GetPerformanceManager()->QueryStats(&specs, results);
   if (asTable) {
      response.contentType = "text/csv; charset=utf-8";
      response.body = FormatCsvTable(*results, *counters);
      return;
   }
   std::string& text = response.body;
   text = R"({"status":"success","data":[)";
   for (const auto& result : *results) {
      text += text.back() == '[' ? "" : ",";
      PrintTo(text, *result);
   }
   text += "]}\n";
}

void ApiRoutes::GetHostUsage(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   Long cpuMhz = -1;
   Long memoryKb = -1;
   GetPerformanceManager()->GetHostCpuMemUsage(cpuMhz, memoryKb);
   Answer(response,
          {{"cpuUsageMhz", FigureToJson(cpuMhz)}, {"memConsumedKB", FigureToJson(memoryKb)}});
}

void ApiRoutes::GetVmUsage(const Http::Request& request, Http::Response& response) const
{
   const Parameters parameters(request, {});
   const Ref<Plexa::MoRef> vm = FindEntityById(request.pathParameters.at(0));
   if (!vm->IsA(Quen::VirtualMachine::GetManagedType())) {
      throw NotFound(Format("'%1' is no virtual machine", vm->GetId()));
   }
   Long cpuMhz = -1;
   Long memoryKb = -1;
   Long activeKb = -1;
   GetPerformanceManager()->GetVmCpuMemUsage(vm.Get(), cpuMhz, memoryKb, activeKb);
   Answer(response, {{"cpuUsageMhz", FigureToJson(cpuMhz)},
                     {"memConsumedKB", FigureToJson(memoryKb)},
                     {"memActiveKB", FigureToJson(activeKb)}});
}

void ApiRoutes::GetHealthy(const Http::Request& /*request*/, Http::Response& response) const
{
   Answer(response, "healthy");
}

/// Not ready while the newest collection is older than three intervals.
void ApiRoutes::GetReady(const Http::Request& /*request*/, Http::Response& response) const
{
   constexpr int32_t kCpuUsage = 0; // any counter: the newest time stamp is the depot's
   const Ref<Plexa::MoRef> host = HostReference();
   auto spec = MakeRef<QuerySpec>();
   spec->entity = host;
   spec->intervalId = kLatestValues;
   spec->metricId = MakeRef<Plexa::DataArray<MetricId>>();
   spec->metricId->Append(MakeRef<MetricId>(kCpuUsage, ""));
   QuerySpecs specs;
   specs.Append(spec);
   Ref<QueryResults> results;
   GetPerformanceManager()->QueryStats(&specs, results);
   if (results->IsEmpty()) {
      throw RequestError(503, "No collection has been made yet");
   }
   const auto& newest = dynamic_cast<PerformanceManager::EntityMetric&>(*(*results)[0]);
   const DateTime time = (*newest.sampleInfo)[0]->timestamp;
   const int64_t ageSec =
      (DateTime::Now().GetUtcMicroseconds() - time.GetUtcMicroseconds()) / 1000000;
   const int32_t intervalSec = GetRealTimeInterval(host.Get());
   if (ageSec > int64_t{3} * intervalSec) {
      throw RequestError(503,
                         Format("The newest collection is of %1, %2 s ago, at an interval of %3 s",
                                time.ToString(), ageSec, intervalSec));
   }
   Answer(response, "ready");
}

void ApiRoutes::GetOpenApi(const Http::Request& /*request*/, Http::Response& response) const
{
   response.body = kOpenApi;
}

} // namespace ManagementApi
