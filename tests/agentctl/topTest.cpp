#include "agentctl/top.h"
#include "agentctl/commands.h"
#include "agentctl/topCommand.h"
#include "agentctl/valueFormat.h"
#include "corvax/format.h"
#include "tests/agentctl/scriptedAgent.h"

#include <algorithm>

namespace {

using namespace Agentctl;

/// A host, a pool, and three virtual machines in it: one runs, one does not answer, one is off.
class TopTest : public AgentctlTest {
public:
   TopTest()
   {
      agent.Respond("/api/v1/entities", R"([
         {"type":"ResourcePool","id":"p","name":"pool","state":null,"parent":null},
         {"type":"VirtualMachine","id":"old","name":"off","state":"poweredOff","parent":"p"},
         {"type":"VirtualMachine","id":"s","name":"stuck","state":"poweredOn","parent":"p",
          "freshness":{"state":"stale","since":"2026-11-21T09:05:00Z","reason":"no answer\u001b"}},
         {"type":"VirtualMachine","id":"v","name":"web\u001b[2J","state":"poweredOn",
          "parent":"p","freshness":{"state":"fresh","since":"2026-11-21T09:00:00Z"}},
         {"type":"HostSystem","id":"ha-host","name":"host","state":null,"parent":null}])");
      const std::vector<std::string> times = {"09:05:00", "09:05:20"};
      agent.Respond(
         "/api/v1/query",
         ToJsonList({EntityJson("v", times,
                                {SeriesJson(11, "0", "[9,30]"), SeriesJson(11, "1", "[9,12]"),
                                 SeriesJson(4, "", "[9,300]")}),
                     EntityJson("ha-host", times,
                                {SeriesJson(0, "", "[1,1234]"), SeriesJson(4, "", "[1,2000]")}),
                     EntityJson("old", {"09:00:00"}, {SeriesJson(4, "", "[5]")})}));
   }
};

TEST_F(TopTest, PrintsNewestFiguresByCpuUseFromOneQuery)
{
   PrintTop(api, 1, output, noWait);
   EXPECT_EQ(output.text, &R"(
NAME        TYPE  STATE  POOL  CPU MHz  CPU %  READY ms  MEM MB  MEM %  DISK KB/s  NET KB/s
host        host  -      -        2000  12.34         -       -      -          -         -
web\x1b[2J  vm    on     pool      300      -        42       -      -          -         -
off         vm    off    pool        -      -         -       -      -          -         -
pool        pool  -      -           -      -         -       -      -          -         -
stuck       vm    stale  pool        -      -         -       -      -          -         -
)"[1]);
   EXPECT_EQ(std::ranges::count(agent.requests, "/api/v1/query"), 1);
   for (const char* const id : {R"("entity":"p")", R"("entity":"old")", R"("entity":"ha-host")"}) {
      EXPECT_NE(agent.lastBody.find(id), std::string::npos);
   }
}

TEST_F(TopTest, EntitiesSayWhichFiguresAreMissingSinceWhenAndWhy)
{
   ListEntities(api, output);
   const std::string since = FormatTime(Corvax::DateTime::FromSeconds(1795251900), false);
   EXPECT_EQ(output.text, Corvax::Format(&R"(
TYPE            ID       NAME        STATE       PARENT  FIGURES  SINCE                REASON
ResourcePool    p        pool        -           -
VirtualMachine  old      off         poweredOff  p
VirtualMachine  s        stuck       poweredOn   p       stale    %1  no answer\x1b
VirtualMachine  v        web\x1b[2J  poweredOn   p
HostSystem      ha-host  host        -           -
)"[1],
                                         since));
}

TEST_F(TopTest, SortsByAnyKeyAndShortensNames)
{
   TopView view = TopSource(api).Read();
   SortRows(view.rows, *FindSortKey('r'));
   EXPECT_EQ(view.rows.front().entity.id, "v");
   TextTable table = ToTable(view.rows);
   table.ShrinkTo(89);
   EXPECT_EQ(table.TakeLines()[1].substr(0, 13), "web\\x1b…  v");
   EXPECT_EQ(FindSortKey('x'), nullptr);
}

} // namespace
