#include "managementApi/apiRoutes.h"
#include "managementApi/apiJson.h"
#include "tests/fakes/fakeServices.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/seed.h"
#include "tests/metrix/managerFixture.h"

#include <httplib.h>

#include <set>

namespace {

using namespace ManagementApi;
using Corvax::MakeRef;
using Corvax::Ref;

struct FakeHostSystem : Quen::HostSystem, Corvax::ObjectImpl {
   Plexa::MoRef* GetMoRef() override { return moRef.Get(); }
   const Ref<Plexa::MoRef> moRef =
      MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), AgentdCommon::moid_hostsystem);
};

struct FreshnessVm : FakeVm {
   using FakeVm::FakeVm;
   Quen::Vm::Freshness GetFreshness() override { return freshness; }
   Quen::Vm::Freshness freshness;
};

/// The API over a real performance manager, with some collections in its depot.
class ManagementApiTest : public ManagerTest {
protected:
   static constexpr int64_t kNow = 1000000200;

   ManagementApiTest()
   {
      _agent.Register("ha-host", MakeRef<FakeHostSystem>());
      _agent.Register("pool-1", MakeRef<FakePool>("pool-1"));
      auto vm = MakeRef<FakeVm>("vm 1/\xc3\xa4");
      vm->runtime->powerState = Quen::Vm::PowerState::SUSPENDED;
      _agent.Register(vm->moRef->GetId(), vm);
      _clock.SetSeconds(kNow - 1800);
      Open();
      Collect(90);
      _api.AddRoutes(_server);
      _port = _server.Listen("127.0.0.1:0");
   }
   ~ManagementApiTest() override { _server.Stop(); }

   void Close()
   {
      _agent.Unregister("ha-perfmgr");
      _manager = nullptr;
   }
   void Open()
   {
      NewManager();
      _agent.Register("ha-perfmgr", _manager);
   }
   /// Puts random figures into the depot's files, with gaps, and reopens them.
   void Collect(int runs)
   {
      Close();
      auto depot = TakeDepot();
      const Metrix::StatsMetadata metadata;
      for (int run = 0; run <= runs; ++run) {
         const auto ts = static_cast<Metrix::TimeStamp>(kNow - int64_t{20} * (runs - run));
         for (const char* const stat : {"cpu-usage", "cpu-usage#0", "cpu-usage#\\x", "mem-active",
                                        "disk-read#sd,a", "sys-uptime"}) {
            const auto* const data = metadata.GetStatsDepotData(stat);
            const auto value = static_cast<Metrix::StatVal>(run * 1000) + _random() % 1000;
            if (_random() % 5 != 0 || run == runs) {
               Add(*depot, "ha-host", stat, ts, value, data->GetRollups(), data->GetStatType());
            }
         }
      }
      _clock.SetSeconds(kNow);
      depot = nullptr;
      Open();
   }

   httplib::Client Connect() const
   {
      httplib::Client client("127.0.0.1", _port);
      client.set_read_timeout(std::chrono::minutes(1));
      return client;
   }
   httplib::Result Get(const std::string& path, const httplib::Headers& headers = {})
   {
      return Connect().Get(path.c_str(), headers);
   }
   httplib::Result Post(const std::string& body)
   {
      return Connect().Post("/api/v1/query", body, "application/json");
   }
   Json Data(const httplib::Result& result)
   {
      EXPECT_EQ(result->status, 200) << result->body;
      return Json::parse(result->body)["data"];
   }
   Json Document() { return Json::parse(Get("/api/v1/openapi.json")->body); }

   std::mt19937_64 _random{NewSeed()};
   const ApiRoutes _api{64, _agent.logger.Get()};
   Http::Server _server{{}, ApiRoutes::FormatError, _agent.logger.Get()};
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

/// The table with the figures of a result in JSON.
std::string ToCsv(const Json& result, const Counters& counters)
{
   std::string text = "time";
   for (const Json& series : result["value"]) {
      const auto id = MakeRef<MetricId>(series["id"]["counterId"].get<int32_t>(),
                                        series["id"]["instance"].get<std::string>());
      const std::string metric = FormatMetric(*id, counters);
      text += metric.find(',') == metric.npos ? "," + metric : ",\"" + metric + "\"";
   }
   for (size_t i = 0; i < result["sampleInfo"].size(); ++i) {
      text += "\r\n" + result["sampleInfo"][i]["timestamp"].get<std::string>();
      for (const Json& series : result["value"]) {
         text += series["value"][i].is_null() ? "," : "," + series["value"][i].dump();
      }
   }
   return text + "\r\n";
}

TEST_F(ManagementApiTest, AllFormsOfAQueryReturnTheSameFigures)
{
   Ref<Counters> counters;
   _manager->GetPerfCounter(counters);
   const std::tuple<const char*, int, const char*> metrics[] = {{"cpu.usage", 0, ""},
                                                                {"cpu.usage.maximum:0", 2, "0"},
                                                                {"1:\\x", 1, "\\x"},
                                                                {"cpu.usage:*", 0, "*"},
                                                                {"mem.active.average", 0x10009, ""},
                                                                {"disk.read:sd,a", 0x20006, "sd,a"},
                                                                {"sys.uptime", 0x40000, ""},
                                                                {"net.usage", 0x30000, ""}};
   size_t figures = 0;
   Json bodies = Json::array();
   Json answers = Json::array();
   for (int round = 0; round < 40; ++round) {
      const int interval = std::array{20, 300, 0}[_random() % 3];
      Json body = {{"entity", "ha-host"}, {"intervalId", interval}, {"metricId", Json::array()}};
      std::string path = "/api/v1/query?entity=ha-host&intervalId=" + std::to_string(interval);
      for (const auto& [text, counterId, instance] : metrics) {
         if (_random() % 3 == 0) {
            body["metricId"].push_back({{"counterId", counterId}, {"instance", instance}});
            path += "&metric=" + Encode(text);
         }
      }
      if (body["metricId"].empty()) {
         continue;
      }
      if (_random() % 2 == 0) {
         const auto start = kNow - static_cast<int64_t>(_random() % 1800) - 1;
         body["startTime"] = start;
         path += "&startTime=" + Corvax::DateTime::FromSeconds(start).ToString();
      }
      if (_random() % 2 == 0) {
         body["maxSample"] = _random() % 40 + 1;
         path += "&maxSample=" + body["maxSample"].dump();
      }
      SCOPED_TRACE(path);
      const Json byGet = Data(Get(path));
      ASSERT_EQ(byGet, Data(Post(Json::array({body}).dump())));
      bodies.push_back(body);
      answers.insert(answers.end(), byGet.begin(), byGet.end());
      const std::string csv = Get(path, {{"Accept", "text/csv"}})->body;
      EXPECT_EQ(csv, byGet.empty() ? "time\r\n" : ToCsv(byGet[0], *counters));
      figures += static_cast<size_t>(std::ranges::count(csv, ','));
   }
   EXPECT_GT(figures, 100u);
   EXPECT_EQ(Data(Post(bodies.dump())), answers);
}

/// `message` is part of the message, before its quotes are escaped.
void ExpectRefusal(const httplib::Result& result, int status, const std::string& message)
{
   ASSERT_TRUE(result) << message;
   EXPECT_EQ(result->status, status) << message;
   EXPECT_NE(result->body.find(Json(message).dump().substr(1, message.size())), std::string::npos)
      << result->body;
}

using RefusalRow = std::tuple<std::string, int, std::string>;

TEST_F(ManagementApiTest, RefusalOfAGetNamesTheParameter)
{
   const std::string q = "/api/v1/query?entity=ha-host&metric=cpu.usage";
   const RefusalRow rows[] = {
      {"/api/v1/counters?id=x", 400, "id: 'x' does not name a counter"},
      {"/api/v1/counters?di=1", 400, "di: is not a parameter of this route"},
      {"/api/v1/counter", 404, ""},
      {"/api/v1/providers/nobody", 404, "There is no entity 'nobody'"},
      {"/api/v1/providers/ha-perfmgr", 404, "There is no entity 'ha-perfmgr'"},
      {"/api/v1/metrics", 400, "entity: is missing"},
      {"/api/v1/metrics?entity=ha-host&begin=-5m&end=-10m", 400, "begin: is not before end"},
      {q + "&startTime=yesterday", 400, "startTime: 'yesterday' is not a time"},
      {q + "&startTime=-2147483647d", 400, "startTime: '-2147483647d' is not a time"},
      {q + "&maxSample=99999999999", 400, "maxSample: '99999999999' is not a 32-bit integer"},
      {q + "&maxSample=1&maxSample=2", 400, "maxSample: is given twice"},
      {q + "&format=xml", 400, "format: 'xml' is neither normal nor csv"},
      {q + ".sum", 400, "metric: 'cpu.usage.sum' does not name a counter"},
      {"/api/v1/usage/vm/ha-host", 404, "'ha-host' is not a virtual machine"},
   };
   for (const auto& [path, status, message] : rows) {
      ExpectRefusal(Get(path), status, message);
   }
   ExpectRefusal(Get(q + "&format=xml", {{"Accept", "text/csv"}}), 400, "format: 'xml' is neither");
}

TEST_F(ManagementApiTest, RefusalOfAPostNamesTheField)
{
   const std::string manySpecs = Json(std::vector(10000, Json{{"entity", "ha-host"}})).dump();
   const std::string manyMetrics = Json(std::vector(1001, Json{{"counterId", 0}})).dump();
   const RefusalRow rows[] = {
      {R"([{"entity":"ha-host","metricId":)" + manyMetrics + "}]", 400,
       "metricId: has 1001 metrics in all; a request may have 1000"},
      {manySpecs, 400, "body: has 10000 query specs; a request may have 64"},
      {"", 400, "body: is not JSON"},
      {"[{]", 400, "body: is not JSON"},
      {"\"\xff\"", 400, "body: is not JSON"},
      {std::string(100000, '['), 400, "body: is nested too deeply"},
      {"{}", 400, "body: is not an array"},
      {"[1]", 400, "[0]: is not an object"},
      {"[{}]", 400, "[0].entity: is missing"},
      {R"([{"entity":"nobody"}])", 404, "'nobody'"},
      {R"([{"entity":7}])", 400, "[0].entity: is not a string"},
      {R"([{"entity":"ha-host","entiti":1}])", 400, "[0].entiti: is not a field"},
      {R"([{"entity":"ha-host","maxSample":1e3}])", 400, "[0].maxSample: is not an integer"},
      {R"([{"entity":"ha-host","intervalId":99999999999999999999}])", 400,
       "[0].intervalId: is not"},
      {R"([{"entity":"ha-host","startTime":1e300}])", 400, "[0].startTime: '1e+300' is not a time"},
      {R"([{"entity":"ha-host","metricId":[{"counterId":32767,"instance":"*"}]}])", 400,
       "[0].metricId[0].counterId: there is no counter 32767"},
      {R"([{"entity":"ha-host","metricId":[{"instance":"a"}]}])", 400,
       "[0].metricId[0]: is not an object with a counterId"},
      {std::string(2 << 20, ' '), 413, ""},
   };
   for (const auto& [body, status, message] : rows) {
      ExpectRefusal(Post(body), status, message);
   }
}

TEST_F(ManagementApiTest, ServersRefusalsHaveTheEnvelopeToo)
{
   const auto result = Connect().Delete("/api/v1/query");
   EXPECT_EQ(result->status, 405);
   EXPECT_EQ(Json::parse(result->body)["error"]["type"], "MethodNotAllowed");
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

TEST_F(ManagementApiTest, ReadinessNeedsSamplesToBeStored)
{
   FaultyFiles files;
   Close();
   Open();
   files.failAt = 1;
   files.failAll = true;
   RunCollection(1);
   ExpectRefusal(Get("/-/ready"), 503, "Samples are not stored: ");
   EXPECT_EQ(Get("/-/healthy")->status, 200);
   files.Recover();
   RunCollection(1);
   EXPECT_EQ(Get("/-/ready")->status, 200);
}

/// Fails for each place where a value does not follow its schema in the document.
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
   ASSERT_TRUE(fits) << place << " is not of type " << type;
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
         ASSERT_TRUE(schema["properties"].contains(name))
            << place << "." << name << " is not documented";
         CheckSchema(document, schema["properties"][name], field,
                     Corvax::Format("%1.%2", place, name));
      }
   }
}

TEST_F(ManagementApiTest, OpenApiDocumentsEveryRoute)
{
   const Json document = Document();
   std::set<std::pair<std::string, std::string>> documented;
   for (const auto& [path, operations] : document["paths"].items()) {
      for (const auto& [method, operation] : operations.items()) {
         documented.insert({method == "get" ? "GET" : "POST", path});
      }
   }
   const auto routes = ApiRoutes::GetRoutes();
   EXPECT_EQ(documented, std::set(routes.begin(), routes.end()));
}

TEST_F(ManagementApiTest, AnswersFollowTheirSchemas)
{
   const Json document = Document();
   const std::string vm = Encode("vm 1/\xc3\xa4");
   const std::tuple<const char*, std::string, std::string> rows[] = {
      {"/api/v1/counters", "/api/v1/counters", "?id=4&id=mem.active.maximum"},
      {"/api/v1/intervals", "/api/v1/intervals", ""},
      {"/api/v1/entities", "/api/v1/entities", ""},
      {"/api/v1/providers/{entity}", "/api/v1/providers/" + vm, ""},
      {"/api/v1/metrics", "/api/v1/metrics", "?entity=ha-host&begin=-1h&end=now&interval=300"},
      {"/api/v1/query", "/api/v1/query",
       "?entity=ha-host&metric=0&startTime=-1h&endTime=now&maxSample=5&intervalId=20"
       "&format=normal"},
      {"/api/v1/query", "/api/v1/query", "?entity=ha-host&intervalId=20&format=csv"},
      {"/api/v1/usage/host", "/api/v1/usage/host", ""},
      {"/api/v1/usage/vm/{id}", "/api/v1/usage/vm/" + vm, ""},
      {"/-/healthy", "/-/healthy", ""},
      {"/-/ready", "/-/ready", ""},
   };
   for (const auto& [route, path, query] : rows) {
      const Json& operation = document["paths"][route]["get"];
      const auto result = Get(path + query);
      ASSERT_EQ(result->status, 200) << path << query << result->body;
      CheckSchema(document, operation["responses"]["200"]["content"]["application/json"]["schema"],
                  Json::parse(result->body), path);
      for (const Json& parameter : operation.value("parameters", Json::array())) {
         if (parameter["in"] == "query") {
            const std::string name = parameter["name"];
            EXPECT_EQ(Get(Corvax::Format("%1?%2=x", path, name))->body.find("is not a parameter"),
                      query.npos)
               << name;
         }
      }
   }
   CheckSchema(document, document["components"]["schemas"]["Error"], Json::parse(Post("[")->body),
               "error");
}

TEST_F(ManagementApiTest, EveryDocumentedFieldOfAQuerySpecIsTaken)
{
   const Json document = Document();
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
}

TEST_F(ManagementApiTest, EntitiesAreListedWithTheirStateAndFreshness)
{
   using State = Quen::Vm::Freshness::State;
   const std::tuple<State, int64_t, const char*, Json> rows[] = {
      {State::FRESH, kNow, "", {{"state", "fresh"}, {"since", "2001-09-09T01:50:00Z"}}},
      {State::PARTLY,
       1,
       "is\xff busy",
       {{"state", "partly"}, {"since", "1970-01-01T00:00:01Z"}, {"reason", "is\xef\xbf\xbd busy"}}},
      {State::STALE, 0, "is away", {{"state", "stale"}, {"reason", "is away"}}},
   };
   std::map<std::string, Json> expected = {{"ha-host", nullptr},
                                           {"pool-1", nullptr},
                                           {"vm 1/\xc3\xa4", {{"state", "off"}}}}; // suspended
   for (const auto& [state, sinceSec, reason, json] : rows) {
      const std::string id = "on-" + std::to_string(expected.size());
      const auto vm = MakeRef<FreshnessVm>(id);
      vm->runtime->powerState = Quen::Vm::PowerState::POWERED_ON;
      vm->freshness = {state, sinceSec, reason};
      _agent.Register(id, vm);
      expected[id] = json;
   }
   std::map<std::string, Json> freshness;
   const Json document = Document();
   for (const Json& entity : Data(Get("/api/v1/entities"))) {
      CheckSchema(document, document["components"]["schemas"]["Entity"], entity, "entity");
      const std::string id = entity["id"];
      freshness[id] = entity.value("freshness", Json());
      EXPECT_EQ(entity["state"], id.starts_with("on-")   ? Json("poweredOn")
                                 : id.starts_with("vm ") ? Json("suspended")
                                                         : Json());
   }
   EXPECT_EQ(freshness, expected);
}

} // namespace
