#include "agentd/managementApi.h"
#include "agentd/openApi.h"

#include "metrix/performanceManagerImpl.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/fakeServices.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <iostream>
#include <random>
#include <set>

namespace {

using namespace Agentd;
using Corvax::MakeRef;
using Corvax::Ref;
using Quen::PerformanceManager;

struct FakeHostSystem : Quen::HostSystem, Corvax::ObjectImpl {
   Plexa::MoRef* GetMoRef() override { return moRef.Get(); }
   const Ref<Plexa::MoRef> moRef =
      MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), AgentdCommon::moid_hostsystem);
};

/// The API over a real performance manager, with some collections in its depot.
class ManagementApiTest : public testing::Test {
protected:
   static constexpr int64_t kNow = 1000000200;

   ManagementApiTest()
   {
      _agent.config->Set("plugins/metrix/depotDir", _scratch.Path());
      _agent.config->Set("plugins/metrix/enableMockup", "true");
      _agent.Register("ha-host", MakeRef<FakeHostSystem>());
      _agent.Register("pool-1", MakeRef<FakePool>("pool-1"));
      auto vm = MakeRef<FakeVm>("vm 1/\xc3\xa4");
      vm->runtime->powerState = Quen::Vm::PowerState::SUSPENDED;
      _agent.Register(vm->moRef->GetId(), vm);
      _clock.SetSeconds(kNow - 20 * 90);
      Open();
      Collect(90);
      _api.AddRoutes(_server);
      _port = _server.Listen("127.0.0.1:0");
   }
   ~ManagementApiTest() override { _server.Stop(); }

   void Open()
   {
      _agent.Unregister("ha-perfmgr");
      _manager = MakeRef<Metrix::PerformanceManagerImpl>("ha-perfmgr", _agent.logger.Get());
      _agent.Register("ha-perfmgr", _manager);
   }
   /// Puts random figures into the depot's files, with gaps, and opens them anew.
   void Collect(int runs)
   {
      Ref<Metrix::StatsDepot> depot;
      Metrix::GetStatsDepot(_scratch.Path(), "hostAgentStats", _agent.logger.Get(), 1000, depot);
      depot->Load();
      const Metrix::StatsMetadata metadata;
      for (int run = 0; run <= runs; ++run) {
         const auto ts = static_cast<Metrix::TimeStamp>(kNow - 20 * (runs - run));
         for (const char* const stat : {"cpu-usage", "cpu-usage#0", "cpu-usage#1", "mem-active",
                                        "disk-read#sd,a", "sys-uptime"}) {
            const auto* const data = metadata.GetStatsDepotData(stat);
            const auto value = static_cast<Metrix::StatVal>(run * 1000) + _random() % 1000;
            if (_random() % 5 == 0 && run != runs) {
               continue;
            }
            if (!depot->AddSample("ha-host", stat, ts, value, 0)) {
               depot->CreateStat("ha-host", stat, data->GetStatType(), 1, data->GetRollups());
               depot->AddSample("ha-host", stat, ts, value, 0);
            }
         }
      }
      _clock.SetSeconds(kNow);
      Open();
   }

   httplib::Result Get(const std::string& path, const httplib::Headers& headers = {})
   {
      return httplib::Client("127.0.0.1", _port).Get(path.c_str(), headers);
   }
   httplib::Result Post(const std::string& body, const httplib::Headers& headers = {})
   {
      return httplib::Client("127.0.0.1", _port)
         .Post("/api/v1/query", headers, body, "application/json");
   }
   Json Data(const httplib::Result& result)
   {
      EXPECT_EQ(result->status, 200) << result->body;
      return Json::parse(result->body)["data"];
   }

   const Scratch _scratch;
   FakeAgent _agent;
   ManualClock _clock;
   ManualScheduler _scheduler{_clock};
   std::mt19937_64 _random{std::random_device{}()};
   Ref<Metrix::PerformanceManagerImpl> _manager;
   const ManagementApi _api{64, _agent.logger.Get()};
   HttpServer _server{{}, ManagementApi::FormatError, _agent.logger.Get()};
   int _port = 0;
};

std::string Encode(const std::string& text)
{
   std::string encoded;
   for (const char c : text) {
      char escape[4];
      std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned char>(c));
      encoded += escape;
   }
   return encoded;
}

/// A result's figures by time and metric text, the same for all forms.
using Table = std::map<std::pair<std::string, std::string>, std::string>;

Table FromJson(const Json& result, const Counters& counters)
{
   Table table;
   for (const Json& series : result["value"]) {
      const auto id = MakeRef<MetricId>(series["id"]["counterId"].get<int32_t>(),
                                        series["id"]["instance"].get<std::string>());
      const std::string metric = FormatMetric(*id, counters);
      for (size_t i = 0; i < series["value"].size(); ++i) {
         const Json& value = series["value"][i];
         table[{result["sampleInfo"][i]["timestamp"], metric}] =
            value.is_null() ? "" : value.dump();
      }
   }
   return table;
}

Table FromTyped(const PerformanceManager::EntityMetric& result, const Counters& counters)
{
   Table table;
   for (const auto& base : *result.value) {
      const auto& series = dynamic_cast<PerformanceManager::IntSeries&>(*base);
      for (size_t i = 0; i < series.value.size(); ++i) {
         table[{(*result.sampleInfo)[i]->timestamp.ToString(),
                FormatMetric(*series.id, counters)}] =
            series.value[i] < 0 ? "" : std::to_string(series.value[i]);
      }
   }
   return table;
}

/// Cells of a line; only names of columns are ever quoted.
std::vector<std::string> Cells(const std::string& line)
{
   std::vector<std::string> cells{""};
   bool quoted = false;
   for (const char c : line) {
      if (c == '"') {
         quoted = !quoted;
      } else if (c == ',' && !quoted) {
         cells.emplace_back();
      } else if (c != '\r') {
         cells.back() += c;
      }
   }
   return cells;
}

Table FromCsv(const std::string& text)
{
   Table table;
   std::istringstream lines(text);
   std::string line;
   std::getline(lines, line);
   const std::vector<std::string> names = Cells(line);
   EXPECT_EQ(names[0], "time");
   while (std::getline(lines, line)) {
      const std::vector<std::string> cells = Cells(line);
      EXPECT_EQ(cells.size(), names.size());
      for (size_t i = 1; i < cells.size(); ++i) {
         table[{cells[0], names[i]}] = cells[i];
      }
   }
   return table;
}

TEST_F(ManagementApiTest, AllFormsOfAQueryGiveTheSameFigures)
{
   const char* const fixed = std::getenv("METRIX_SEED");
   const uint64_t seed = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device{}();
   std::cout << "METRIX_SEED=" << seed << "\n";
   _random.seed(seed);
   Ref<Counters> counters;
   _manager->GetPerfCounter(counters);
   const std::vector<std::string> metrics = {
      "cpu.usage",          "cpu.usage.maximum:0", "1:1",        "cpu.usage:*",
      "mem.active.average", "disk.read:sd,a",      "sys.uptime", "net.usage"};
   size_t figures = 0;
   for (int round = 0; round < 40; ++round) {
      const int interval = std::array{20, 300, 0}[_random() % 3];
      auto spec = MakeRef<QuerySpec>();
      spec->entity = MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), "ha-host");
      spec->intervalId = interval;
      spec->metricId = MakeRef<Plexa::DataArray<MetricId>>();
      Json body = {{"entity", "ha-host"}, {"intervalId", interval}, {"metricId", Json::array()}};
      std::string path = "/api/v1/query?entity=ha-host&intervalId=" + std::to_string(interval);
      std::set<std::string> chosen;
      for (size_t i = 0; i <= _random() % 4; ++i) {
         const std::string& metric = metrics[_random() % metrics.size()];
         if (!chosen.insert(metric).second) {
            continue;
         }
         const Ref<MetricId> id = ParseMetric("metric", metric, *counters);
         spec->metricId->Append(id);
         body["metricId"].push_back(ToJson(*id));
         path += "&metric=" + Encode(metric);
      }
      if (_random() % 2 == 0) {
         const auto start = kNow - static_cast<int64_t>(_random() % 1800) - 1;
         spec->startTime = Corvax::DateTime::FromSeconds(start);
         body["startTime"] = start;
         path += "&startTime=" + spec->startTime->ToString();
      }
      if (_random() % 2 == 0) {
         spec->maxSample = static_cast<int32_t>(_random() % 40) + 1;
         body["maxSample"] = *spec->maxSample;
         path += "&maxSample=" + std::to_string(*spec->maxSample);
      }
      SCOPED_TRACE(path);
      Plexa::DataArray<QuerySpec> specs;
      specs.Append(spec);
      Ref<Plexa::DataArray<PerformanceManager::EntityMetricBase>> results;
      _manager->QueryStats(&specs, results);
      const Json byGet = Data(Get(path));
      const Json byPost = Data(Post(Json::array({body}).dump()));
      const auto csv = Get(path, {{"Accept", "text/csv"}});
      ASSERT_EQ(byGet.size(), results->GetSize());
      ASSERT_EQ(byGet, byPost);
      if (results->IsEmpty()) {
         EXPECT_EQ(csv->body, "time\r\n");
         continue;
      }
      const Table typed =
         FromTyped(dynamic_cast<PerformanceManager::EntityMetric&>(*(*results)[0]), *counters);
      EXPECT_EQ(FromJson(byGet[0], *counters), typed);
      EXPECT_EQ(FromCsv(csv->body), typed);
      figures += typed.size();
   }
   EXPECT_GT(figures, 100u);
}

TEST_F(ManagementApiTest, RefusalsSayWhichArgumentAndWhy)
{
   const std::string q = "/api/v1/query?entity=ha-host&metric=cpu.usage";
   const struct {
      std::string path;
      int status;
      std::string message;
   } gets[] = {
      {"/api/v1/counters?id=x", 400, "id: 'x' names no counter"},
      {"/api/v1/counters?di=1", 400, "di: is no parameter of this route"},
      {"/api/v1/counter", 404, ""},
      {"/api/v1/providers/nobody", 404, "There is no entity 'nobody'"},
      {"/api/v1/providers/ha-perfmgr", 404, "There is no entity 'ha-perfmgr'"},
      {"/api/v1/metrics", 400, "entity: is missing"},
      {"/api/v1/metrics?entity=ha-host&begin=-5m&end=-10m", 400, "begin: is not before end"},
      {q + "&startTime=yesterday", 400, "startTime: 'yesterday' is no time"},
      {q + "&startTime=now&endTime=-1s", 400, "startTime: is not before endTime"},
      {q + "&maxSample=0", 400, "maxSample: 0 is below 1"},
      {q + "&maxSample=99999999999", 400, "maxSample: '99999999999' is no integer of 32 bits"},
      {q + "&maxSample=1&maxSample=2", 400, "maxSample: stands more than once"},
      {q + "&intervalId=60", 400, "intervalId: 60 is no interval; use 20 (real time)"},
      {q + "&format=xml", 400, "format: 'xml' is neither normal nor csv"},
      {q + ".sum", 400, "metric: 'cpu.usage.sum' names no counter"},
      {"/api/v1/query?entity=ha-host&intervalId=0", 400, "metricId: latest values"},
      {"/api/v1/usage/vm/ha-host", 404, "'ha-host' is no virtual machine"},
   };
   for (const auto& c : gets) {
      const auto result = Get(c.path);
      EXPECT_EQ(result->status, c.status) << c.path;
      const Json json = Json::parse(result->body);
      EXPECT_EQ(json["status"], "error");
      EXPECT_NE(json["error"]["message"].get<std::string>().find(c.message), std::string::npos)
         << c.path << " " << result->body;
   }
   std::string many = "[";
   for (int i = 0; i < 10000; ++i) {
      many += (i ? "," : "") + std::string(R"({"entity":"ha-host"})");
   }
   std::string metrics = R"({"counterId":0})";
   for (int i = 0; i < 1000; ++i) {
      metrics += R"(,{"counterId":0})";
   }
   const struct {
      std::string body;
      int status;
      std::string message;
   } posts[] = {
      {R"([{"entity":"ha-host","metricId":[)" + metrics + "]}]", 400,
       "metricId: there are 1001 in all"},
      {"", 400, "body: is no JSON"},
      {"[{]", 400, "body: is no JSON"},
      {"\"\xff\"", 400, "body: is no JSON"},
      {std::string(100000, '['), 400, "body: is too deeply nested"},
      {"{}", 400, "body: is no array"},
      {"[1]", 400, "[0]: is no object"},
      {"[{}]", 400, "[0].entity: is missing"},
      {R"([{"entity":"nobody"}])", 404, "'nobody'"},
      {R"([{"entity":7}])", 400, "[0].entity: is no string"},
      {R"([{"entity":"ha-host","entiti":1}])", 400, "[0].entiti: is no field"},
      {R"([{"entity":"ha-host","maxSample":-5}])", 400, "maxSample: -5 is below 1"},
      {R"([{"entity":"ha-host","maxSample":1e3}])", 400, "[0].maxSample: is no integer"},
      {R"([{"entity":"ha-host","intervalId":99999999999999999999}])", 400, "[0].intervalId: is no"},
      {R"([{"entity":"ha-host","startTime":1e300}])", 400, "[0].startTime: '1e+300' is no time"},
      {R"([{"entity":"ha-host","metricId":[{"counterId":32767}]}])", 400,
       "there is no counter 32767"},
      {R"([{"entity":"ha-host","metricId":[{"instance":"a"}]}])", 400,
       "[0].metricId[0]: is no object"},
      {many + "]", 400, "body: has 10000 query specs, more than 64 in one request"},
      {std::string(2 << 20, ' '), 413, ""},
   };
   for (const auto& c : posts) {
      const auto result = Post(c.body);
      ASSERT_TRUE(result) << c.body.substr(0, 60);
      EXPECT_EQ(result->status, c.status) << c.body.substr(0, 60);
      EXPECT_NE(result->body.find(Json(c.message).dump().substr(1, c.message.size())),
                std::string::npos)
         << result->body;
   }
   const auto wrongMethod = httplib::Client("127.0.0.1", _port).Delete("/api/v1/query");
   EXPECT_EQ(wrongMethod->status, 405);
   _server.RefuseRequests();
   EXPECT_EQ(Get("/-/healthy")->status, 503);
}

TEST_F(ManagementApiTest, ReadinessFollowsTheNewestCollection)
{
   EXPECT_EQ(Get("/-/ready")->status, 200);
   _clock.SetSeconds(kNow + 60);
   EXPECT_EQ(Get("/-/ready")->status, 200);
   _clock.SetSeconds(kNow + 61);
   EXPECT_EQ(Get("/-/ready")->status, 503);
   EXPECT_EQ(Get("/-/healthy")->status, 200);
}

/// Says where a value does not follow its schema, with the document's own references.
void CheckSchema(const Json& document, Json schema, const Json& value, const std::string& place)
{
   while (schema.contains("$ref")) {
      const std::string reference = schema["$ref"].get<std::string>().substr(1);
      schema = document[Json::json_pointer(reference)];
   }
   if (value.is_null()) {
      EXPECT_TRUE(schema.value("nullable", false)) << place << " is null";
      return;
   }
   if (schema.contains("oneOf")) {
      schema = schema["oneOf"][value.is_array() ? 0 : 1];
   }
   const std::string type = schema["type"];
   const bool fits = type == "object"    ? value.is_object()
                     : type == "array"   ? value.is_array()
                     : type == "integer" ? value.is_number_integer()
                     : type == "boolean" ? value.is_boolean()
                                         : value.is_string();
   ASSERT_TRUE(fits) << place << " is no " << type;
   if (schema.contains("enum")) {
      EXPECT_NE(std::ranges::find(schema["enum"], value), schema["enum"].end()) << place << value;
   }
   if (type == "array") {
      for (const Json& item : value) {
         CheckSchema(document, schema["items"], item, place + "[]");
      }
   } else if (type == "object" && schema.contains("properties")) {
      for (const Json& name : schema.value("required", Json::array())) {
         EXPECT_TRUE(value.contains(name.get<std::string>())) << place << " lacks " << name;
      }
      for (const auto& [name, field] : value.items()) {
         ASSERT_TRUE(schema["properties"].contains(name)) << place << "." << name << " is not told";
         CheckSchema(document, schema["properties"][name], field, place + "." + name);
      }
   }
}

TEST_F(ManagementApiTest, OpenApiDocumentTellsEveryRouteAndField)
{
   const Json document = Json::parse(Get("/api/v1/openapi.json")->body);
   std::set<std::pair<std::string, std::string>> told;
   for (const auto& [path, operations] : document["paths"].items()) {
      for (const auto& [method, operation] : operations.items()) {
         told.insert({method == "get" ? "GET" : "POST", path});
      }
   }
   const auto routes = ManagementApi::GetRoutes();
   EXPECT_EQ(told, std::set(routes.begin(), routes.end()));

   const std::string vm = Encode("vm 1/\xc3\xa4");
   const std::pair<std::string, std::string> good[] = {
      {"/api/v1/counters", "?id=4&id=mem.active.maximum"},
      {"/api/v1/counters", ""},
      {"/api/v1/intervals", ""},
      {"/api/v1/entities", ""},
      {"/api/v1/metrics", "?entity=ha-host&begin=-1h&end=now&interval=300"},
      {"/api/v1/metrics", "?entity=ha-host&begin=2100-01-01T00:00:00Z"},
      {"/api/v1/query",
       "?entity=ha-host&metric=0&startTime=-1h&endTime=now&maxSample=5&intervalId=20"
       "&format=normal"},
      {"/api/v1/query", "?entity=ha-host&intervalId=20&format=csv"},
      {"/api/v1/usage/host", ""},
      {"/-/healthy", ""},
      {"/-/ready", ""},
   };
   const auto check = [&](const std::string& path, const std::string& query,
                          const Json& operation) {
      const auto result = Get(path + query);
      ASSERT_EQ(result->status, 200) << path << query << result->body;
      const Json& schema = operation["responses"]["200"]["content"]["application/json"]["schema"];
      CheckSchema(document, schema, Json::parse(result->body), path);
      for (const Json& parameter : operation.value("parameters", Json::array())) {
         if (parameter["in"] == "query" && !query.empty()) {
            const std::string name = parameter["name"];
            EXPECT_EQ(Get(path + "?" + name + "=%00")->status, 400) << name;
         }
      }
   };
   for (const auto& [path, query] : good) {
      check(path, query, document["paths"][path]["get"]);
   }
   check("/api/v1/providers/" + vm, "", document["paths"]["/api/v1/providers/{entity}"]["get"]);
   check("/api/v1/usage/vm/" + vm, "", document["paths"]["/api/v1/usage/vm/{id}"]["get"]);
   // Every field of a query spec that the document tells is taken.
   const Json full = {{{"entity", "ha-host"},
                       {"startTime", "-1h"},
                       {"endTime", "now"},
                       {"maxSample", 3},
                       {"metricId", {{{"counterId", 0}, {"instance", "*"}}}},
                       {"intervalId", 20},
                       {"format", "csv"}}};
   for (const auto& [name, schema] :
        document["components"]["schemas"]["QuerySpec"]["properties"].items()) {
      EXPECT_TRUE(full[0].contains(name)) << name;
   }
   const Json answer = Json::parse(Post(full.dump())->body);
   CheckSchema(document,
               document["paths"]["/api/v1/query"]["post"]["responses"]["200"]["content"]
                       ["application/json"]["schema"],
               answer, "POST");
   ASSERT_EQ(answer["data"].size(), 1u);
   // Refusals follow their schema, too.
   CheckSchema(document, document["components"]["schemas"]["Error"], Json::parse(Post("[")->body),
               "error");
   const Json entities = Data(Get("/api/v1/entities"));
   EXPECT_EQ(entities.size(), 3u);
   EXPECT_EQ(entities[2]["state"], "suspended");
}

} // namespace
