#include "agentctl/query.h"
#include "agentctl/valueFormat.h"
#include "tests/agentctl/scriptedAgent.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/messageOf.h"

namespace {

using namespace Agentctl;

TEST(ValueFormatTest, HundredthsKeepSignAndZeroes)
{
   EXPECT_EQ(FormatHundredths(1234), "12.34");
   EXPECT_EQ(FormatHundredths(-5), "-0.05");
   EXPECT_EQ(FormatHundredths(INT64_MIN), "-92233720368547758.08");
}

TEST(PaceTest, NextRequestIsDueOneSecondAfterTheNextSample)
{
   ManualClock clock;
   const std::tuple<int64_t, int64_t, int64_t, int64_t> cases[] = {
      {1000, 1005, 20, 16}, {1000, 1020, 20, 1}, {1000, 1021, 20, 5}, // overdue
      {9000, 1000, 20, 5},                                            // another clock
      {0, 1000, 1, 1},
   };
   for (const auto& [newestSec, nowSec, intervalSec, wanted] : cases) {
      clock.SetSeconds(nowSec);
      EXPECT_EQ(GetSecondsToNext(Corvax::DateTime::FromSeconds(newestSec), intervalSec), wanted)
         << newestSec << " " << nowSec;
   }
}

TEST_F(AgentctlTest, RefusesInvalidResponses)
{
   const auto success = [](const std::string& entity) {
      return R"({"status":"success","data":[)" + entity + "]}";
   };
   const std::pair<std::string, std::string> cases[] = {
      {"<html>", "not JSON"},
      {"[]", "'status'"},
      {R"({"status":"success"})", "'data'"},
      {R"({"status":"error","error":{"type":"x"}})", "'message'"},
      {std::string(100000, '[') + std::string(100000, ']'), "too deep"},
      {R"({"status":"success","data":7})", "not a list"},
      {success(EntityJson("e", {}, {SeriesJson(0, "", "[1]")})), "one value per"},
      {success(EntityJson("e", {"now"}, {})), "not a valid time"},
      {success(EntityJson("e", {"09:05:00"}, {SeriesJson(0, "", "[9223372036854775808]")})),
       "not an integer"},
   };
   EXPECT_EQ(MessageOf([&] { api.GetEntities(); }), "nothing\nthere"); // the agent's own text
   for (const auto& [body, complaint] : cases) {
      agent.bodies["/api/v1/query"] = {body};
      EXPECT_NE(MessageOf([&] { api.Query({}); }).find(complaint), std::string::npos) << complaint;
   }
}

TEST_F(AgentctlTest, QueryEncodesItsParametersAndShowsUnitsAndGaps)
{
   agent.Respond("/api/v1/providers/a%2F%26%C3%BC", R"({"refreshRate":20})");
   agent.Respond("/api/v1/query", ToJsonList({EntityJson("ha-host", {"09:05:00", "09:05:20"},
                                                         {SeriesJson(1, "", "[1234,null]"),
                                                          SeriesJson(11, "0\\u001b", "[7,8]"),
                                                          SeriesJson(99, "", "[1,2]")})}));
   options.entityId = "a/&ü";
   options.metrics = {"cpu.usage:*", "cpu.ready:0+1"};
   options.from = "-10m";
   options.maxSample = 2;
   options.utc = true;
   RunQuery(api, options, output, noWait);
   EXPECT_EQ(agent.requests.front(), "/api/v1/providers/a%2F%26%C3%BC");
   EXPECT_EQ(agent.requests.back(),
             "/api/v1/query?entity=a%2F%26%C3%BC&metric=cpu.usage%3A%2A&metric=cpu.ready%3A0%2B1"
             "&startTime=-10m&maxSample=2&intervalId=20");
   EXPECT_EQ(output.text,
             "time (UTC)           cpu.usage.average (%)  cpu.ready:0\\x1b (ms)  99 (?)\n"
             "2026-11-21 09:05:00                12.34 %                     7       1\n"
             "2026-11-21 09:05:20                      -                     8       2\n");
}

TEST_F(AgentctlTest, WatchShowsEachRowOnceAndNewTitlesForOtherMetrics)
{
   const auto usageAt = [](const std::string& time, const std::string& instance) {
      return ToJsonList({EntityJson("ha-host", {time}, {SeriesJson(4, instance, "[1]")})});
   };
   const std::string first = usageAt("09:05:00", "");
   for (const std::string& data :
        {first, first, std::string("[]"), usageAt("09:05:20", ""), usageAt("09:05:40", "0")}) {
      agent.Respond("/api/v1/query", data);
   }
   options.entityId = "ha-host";
   options.maxSample = 1;
   options.utc = options.watch = true;
   int waits = 0;
   RunQuery(api, options, output, [&](int64_t) { return ++waits < 5; });
   EXPECT_EQ(output.text, "time (UTC)           cpu.usagemhz (MHz)\n"
                          "2026-11-21 09:05:00                   1\n"
                          "2026-11-21 09:05:20                   1\n"
                          "time (UTC)           cpu.usagemhz:0 (MHz)\n"
                          "2026-11-21 09:05:40                     1\n");
   EXPECT_EQ(agent.requests.back(),
             "/api/v1/query?entity=ha-host&startTime=2026-11-21T09%3A05%3A20Z"
             "&intervalId=20");
}

TEST_F(AgentctlTest, QueryWithoutDataFailsInEveryFormat)
{
   options.entityId = "ha-host";
   agent.Respond("/api/v1/query", "[]");
   agent.bodies["csv:/api/v1/query"] = {"time\r\n"};
   for (const QueryFormat format : {QueryFormat::TABLE, QueryFormat::CSV, QueryFormat::JSON}) {
      options.format = format;
      EXPECT_EQ(MessageOf([&] { RunQuery(api, options, output, noWait); }),
                "there is no data of ha-host");
   }
}

TEST_F(AgentctlTest, CsvIsEscapedForATerminalOnly)
{
   options.entityId = "ha-host";
   options.format = QueryFormat::CSV;
   const std::string csv = "time,cpu.usage:\x1b[2J\r\n2026-11-21T09:05:00Z,1\r\n";
   agent.bodies["csv:/api/v1/query"] = {csv};
   RunQuery(api, options, output, noWait);
   EXPECT_EQ(std::exchange(output.text, ""), csv);
   output.isTerminal = true;
   RunQuery(api, options, output, noWait);
   EXPECT_EQ(output.text, "time,cpu.usage:\\x1b[2J\n2026-11-21T09:05:00Z,1\n");
}

TEST_F(AgentctlTest, JsonIsAsciiInTheOrderOfTheServer)
{
   options.entityId = "ha-host";
   options.format = QueryFormat::JSON;
   agent.Respond("/api/v1/query", "[{\"z\":\"\xc2\x9b\x7f\",\"a\":18446744073709551615}]");
   RunQuery(api, options, output, noWait);
   EXPECT_EQ(output.text, "{\n  \"status\": \"success\",\n  \"data\": [\n    {\n"
                          "      \"z\": \"\\u009b\\u007f\",\n"
                          "      \"a\": 18446744073709551615\n    }\n  ]\n}\n");
}

TEST_F(AgentctlTest, RequestsNoMoreEntitiesAtOnceThanTheAgentAccepts)
{
   agent.Respond("/api/v1/query", ToJsonList({EntityJson("x", {}, {})}));
   for (const size_t count : {64U, 65U}) {
      const std::vector<Entity> entities(count, Entity{"", "x", "", {}, {}});
      EXPECT_EQ(api.QueryNewest(entities, {}, 20).size(), count / 64 + count % 64);
   }
   const std::string body = agent.lastBody;
   EXPECT_EQ(body.find("entity"), body.rfind("entity")); // the remaining one
}

} // namespace
