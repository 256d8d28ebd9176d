#include "managementApi/apiRoutes.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/clock.h"
#include "guestsvc/guestsvc.h"
#include "managementApi/agentObjects.h"
#include "managementApi/apiJson.h"
#include "managementApi/csvTable.h"
#include "managementApi/openApi.h"
#include "managementApi/urlParameters.h"
#include "plexa/fault.h"
#include "quen/inventory.h"

#include <algorithm>

namespace ManagementApi {

namespace {

using AgentdCommon::Long;
using Corvax::DateTime;
using Corvax::Format;
using Corvax::MakeRef;
using Corvax::Ref;
using Http::Refusal;
using Quen::PerformanceManager;

constexpr int32_t kLatestValues = 0; // intervalId 0 asks for the latest values

void Answer(Http::Response& response, Json data)
{
   response.body = Print({{"status", "success"}, {"data", std::move(data)}});
}

Refusal ToRefusal(const Plexa::Fault::InvalidArgument::Exception& fault)
{
   const std::string& argument = fault.GetArgument();
   return argument.empty() ? Refusal(400, fault.GetMessage())
                           : BadArgument(argument, fault.GetReason());
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
   Json freshness;
   if (auto* const vm = dynamic_cast<Guestsvc::HaVirtualMachine*>(&entity)) {
      const Corvax::Locker lock(vm);
      const Quen::Vm::PowerState state = vm->GetRuntime()->GetPowerState();
      json["state"] = PowerStateName(state);
      // Backends that know nothing of freshness report every virtual machine as fresh.
      freshness = ToJson(state == Quen::Vm::PowerState::POWERED_ON ? vm->GetFreshness()
                                                                   : Quen::Vm::Freshness());
   }
   if (const Ref<Plexa::MoRef> parent = entity.GetParent()) {
      json["parent"] = parent->GetId();
   }
   if (!freshness.is_null()) {
      json["freshness"] = std::move(freshness);
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
   } catch (const Refusal&) {
      throw;
   } catch (const Plexa::Fault::InvalidArgument::Exception& e) {
      throw ToRefusal(e);
   } catch (const Plexa::Fault::NotImplemented::Exception& e) {
      throw Refusal(501, e.GetMessage());
   } catch (const Corvax::Exception& e) {
      _logger->Log(Corvax::kLogError, "%1 %2 failed: %3", request.method, request.path,
                   e.GetMessage());
      throw Refusal(500, e.GetMessage());
   }
}

void ApiRoutes::GetCounters(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters parameters(request, {"id"});
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
   counterIds.reserve(ids.size());
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
   const UrlParameters noParameters(request, {});
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
   const UrlParameters noParameters(request, {});
   Json data = Json::array();
   for (const auto& [id, object] : Corvax::Service::GetApp()->GetObjectRegistry()->GetAll()) {
      if (const auto entity = Corvax::RefCast<Quen::ManagedEntity>(object)) {
         data.push_back(EntityToJson(*entity));
      }
   }
   Answer(response, std::move(data));
}

void ApiRoutes::GetProvider(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters noParameters(request, {});
   const Ref<Plexa::MoRef> entity = FindEntity(request.pathParameters.at(0));
   Ref<PerformanceManager::ProviderSummary> summary;
   GetPerformanceManager()->QueryProviderSummary(entity.Get(), summary);
   Answer(response, ToJson(*summary));
}

void ApiRoutes::GetMetrics(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters parameters(request, {"entity", "begin", "end", "interval"});
   const DateTime now = DateTime::Now();
   const Ref<Plexa::MoRef> entity = FindEntity(parameters.GetRequired("entity"));
   const std::optional<DateTime> begin = parameters.GetTime("begin", now);
   const std::optional<DateTime> end = parameters.GetTime("end", now);
   const std::optional<int32_t> interval = parameters.GetInt("interval");
   if (begin && end && *begin >= *end) {
      throw BadArgument("begin", "is not before end"); // the operation has other names for them
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
   const Ref<Counters> counters = GetAllCounters();
   const Ref<QuerySpecs> specs = ReadQuerySpec(request, *counters);
   AnswerQuery(request, *specs, *counters, response);
}

void ApiRoutes::PostQuery(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters noParameters(request, {});
   const Ref<Counters> counters = GetAllCounters();
   const Ref<QuerySpecs> specs = ParseQuerySpecs(request.body, _maxQuerySpecs, *counters);
   AnswerQuery(request, *specs, *counters, response);
}

void ApiRoutes::AnswerQuery(const Http::Request& request, QuerySpecs& specs,
                            const Counters& counters, Http::Response& response)
{
   const bool asTable = request.accept.find("text/csv") != std::string::npos;
   for (const Ref<QuerySpec>& spec : specs) {
      if (asTable && spec->format == PerformanceManager::FORMAT_CSV) {
         spec->format = PerformanceManager::FORMAT_NORMAL; // the table is made of numbers
      }
   }
   Ref<QueryResults> results;
   GetPerformanceManager()->QueryStats(&specs, results);
   if (asTable) {
      response.contentType = "text/csv; charset=utf-8";
      response.body = FormatCsvTable(*results, counters);
      return;
   }
   std::string& text = response.body;
   text = R"({"status":"success","data":)";
   PrintTo(text, *results);
   text += "}\n";
}

void ApiRoutes::GetHostUsage(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters noParameters(request, {});
   Long cpuMhz = -1;
   Long memoryKb = -1;
   GetPerformanceManager()->GetHostCpuMemUsage(cpuMhz, memoryKb);
   Answer(response,
          {{"cpuUsageMhz", FigureToJson(cpuMhz)}, {"memConsumedKB", FigureToJson(memoryKb)}});
}

void ApiRoutes::GetVmUsage(const Http::Request& request, Http::Response& response) const
{
   const UrlParameters noParameters(request, {});
   const Ref<Plexa::MoRef> vm = FindEntity(request.pathParameters.at(0));
   if (!vm->IsA(Quen::VirtualMachine::GetManagedType())) {
      throw Refusal(404, Format("'%1' is not a virtual machine", vm->GetId()));
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

/// Ready unless samples are not stored or the newest collection is older than three intervals.
void ApiRoutes::GetReady(const Http::Request& /*request*/, Http::Response& response) const
{
   const std::string trouble = GetPerformanceManager()->GetStorageTrouble();
   if (!trouble.empty()) {
      throw Refusal(503, "Samples are not stored: " + trouble);
   }
   constexpr int32_t kCpuUsage = 0; // any counter: the time stamp is the depot's newest
   auto spec = MakeRef<QuerySpec>();
   spec->entity = FindEntity(AgentdCommon::moid_hostsystem);
   spec->intervalId = kLatestValues;
   spec->metricId = MakeRef<Plexa::DataArray<MetricId>>();
   spec->metricId->Append(MakeRef<MetricId>(kCpuUsage, ""));
   QuerySpecs specs;
   specs.Append(spec);
   Ref<QueryResults> results;
   GetPerformanceManager()->QueryStats(&specs, results);
   if (results->IsEmpty()) {
      throw Refusal(503, "Nothing has been collected yet");
   }
   const auto& newest = dynamic_cast<PerformanceManager::EntityMetric&>(*(*results)[0]);
   const DateTime time = (*newest.sampleInfo)[0]->timestamp;
   const int64_t ageSec = (DateTime::Now().GetUtcMicroseconds() - time.GetUtcMicroseconds()) /
                          Corvax::kMicrosecondsPerSecond;
   Ref<PerformanceManager::ProviderSummary> summary;
   GetPerformanceManager()->QueryProviderSummary(spec->entity.Get(), summary);
   const int32_t intervalSec = summary->refreshRate.value_or(0);
   if (ageSec > int64_t{3} * intervalSec) {
      throw Refusal(503, Format("The newest collection was at %1, %2 s ago; the interval is %3 s",
                                time.ToString(), ageSec, intervalSec));
   }
   Answer(response, "ready");
}

void ApiRoutes::GetOpenApi(const Http::Request& /*request*/, Http::Response& response) const
{
   response.body = kOpenApi;
}

} // namespace ManagementApi
