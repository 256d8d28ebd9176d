#include "agentctl/commands.h"
#include "agentctl/pace.h"
#include "agentctl/printable.h"
#include "agentctl/query.h"
#include "agentctl/screen.h"
#include "agentctl/textTable.h"
#include "agentctl/top.h"
#include "agentctl/topCommand.h"
#include "tests/fakes/messageOf.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

namespace {

using namespace Agentctl;

/// An agent that answers what a test tells it to, and keeps what it was asked.
class ScriptedAgent : public HttpClient {
public:
   ScriptedAgent()
   {
      Answer(
         "/api/v1/counters",
         R"([{"id":0,"group":"cpu","name":"usage","unit":"percent","statsType":"rate","rollup":"none"},
                 {"id":1,"group":"cpu","name":"usage","unit":"percent","statsType":"rate","rollup":"average"},
                 {"id":4,"group":"cpu","name":"usagemhz","unit":"megaHertz","statsType":"rate","rollup":"none"},
                 {"id":11,"group":"cpu","name":"ready","unit":"millisecond","statsType":"delta","rollup":"summation"}])");
      Answer("/api/v1/providers/ha-host", R"({"refreshRate":20})");
   }
   HttpAnswer Get(const std::string& target, const std::string& accept) override
   {
      asked.push_back(target);
      const auto found =
         answers.find((accept == "text/csv" ? "csv:" : "") + target.substr(0, target.find('?')));
      if (found == answers.end()) {
         return {404, R"({"status":"error","error":{"type":"x","message":"nothing\nthere"}})"};
      }
      const std::string body = found->second.front();
      if (found->second.size() > 1) { // the last of several answers stays
         found->second.erase(found->second.begin());
      }
      return {200, body};
   }
   HttpAnswer Post(const std::string& target, const std::string& json) override
   {
      lastBody = json;
      return Get(target, "");
   }
   void Answer(const std::string& path, const std::string& data)
   {
      answers[path].push_back(R"({"status":"success","data":)" + data + "}");
   }

   std::map<std::string, std::vector<std::string>> answers;
   std::vector<std::string> asked;
   std::string lastBody;
};

class TextOutput : public Output {
public:
   void Write(std::string_view added) override { text += added; }
   bool IsTerminal() const override { return isTerminal; }
   std::string text;
   bool isTerminal = false;
};

class AgentctlTest : public testing::Test {
protected:
   ScriptedAgent agent;
   Api api{agent};
   TextOutput output;
   Options options;
   const WaitFunction noWait = [](int64_t) { return false; };
};

std::string Samples(const std::string& times, const std::string& values)
{
   return R"([{"entity":{"id":"ha-host"},"sampleInfo":)" + times + R"(,"value":)" + values + "}]";
}

TEST(PrintableTest, NothingThatControlsATerminalStays)
{
   const std::pair<std::string, std::string> cases[] = {
      {"plain ä 表", "plain ä 表"},
      {"\x1b[2J\a", "\\x1b[2J\\x07"},
      {"a\r\nb\tc\x7f", "a\\x0d\\x0ab\\x09c\\x7f"},
      {"\xc2\x9b", "\\x9b"}, // the control sequence introducer in UTF-8
      {std::string("\0", 1) + "\xff\xc3", "\\x00\\xff\\xc3"}, // no UTF-8, and cut off
      {"a\xe2\x80\xae"
       "b",
       "a\\u{202e}b"},
   };
   for (const auto& [text, wanted] : cases) {
      EXPECT_EQ(Printable(text), wanted);
   }
}

TEST(PrintableTest, CutsByColumnsNotBytesAndKeepsSignAndZeroes)
{
   EXPECT_EQ(CutToColumns("aä表", 4), "aä表");
   EXPECT_EQ(CutToColumns("aä表b", 4), "aä…"); // the wide one would end in column 5
   EXPECT_EQ(CutToColumns("ab", 1), "…");
   EXPECT_EQ(CutToColumns("ab", 0), "");
   EXPECT_EQ(FormatHundredths(1234), "12.34");
   EXPECT_EQ(FormatHundredths(-5), "-0.05");
   EXPECT_EQ(FormatHundredths(INT64_MIN), "-92233720368547758.08");
}

TEST(PaceTest, AsksOnceNewSamplesAreDue)
{
   EXPECT_EQ(GetSecondsToNext(1000, 1005, 20), 16);
   EXPECT_EQ(GetSecondsToNext(1000, 1020, 20), 1);
   EXPECT_EQ(GetSecondsToNext(1000, 1021, 20), 5); // overdue
   EXPECT_EQ(GetSecondsToNext(9000, 1000, 20), 5); // another clock
   EXPECT_EQ(GetSecondsToNext(0, 1000, 1), 1);
}

TEST(HttpClientTest, ReadsUrlsOfServersOnly)
{
   const std::tuple<const char*, const char*, int> good[] = {
      {"http://127.0.0.1:8697", "127.0.0.1", 8697},
      {"http://a-b.c/", "a-b.c", 80},
      {"http://[::1]:1", "::1", 1},
      {"http://[fe80::1]", "fe80::1", 80}};
   for (const auto& [url, host, port] : good) {
      const auto address = ParseServerUrl(url);
      ASSERT_TRUE(address) << url;
      EXPECT_EQ(address->host, host);
      EXPECT_EQ(address->port, port);
   }
   for (const char* const bad :
        {"", "127.0.0.1:8697", "https://a", "http://", "http://:1", "http://a:", "http://a:0",
         "http://a:65536", "http://a:1x", "http://a/b", "http://u@a", "http://[::1", "http://[a]",
         "http://[::1]x:1", "http://a\r\nb"}) {
      EXPECT_FALSE(ParseServerUrl(bad)) << bad;
   }
}

TEST(HttpClientTest, BringsAnyAnswerAndTellsWhyThereIsNone)
{
   std::string url = "http://127.0.0.1:";
   {
      httplib::Server server;
      server.Get("/a b", [](const httplib::Request& request, httplib::Response& response) {
         response.status = 404;
         response.set_content(request.target + " " + request.get_header_value("Accept"), "x/y");
      });
      server.Post("/p", [](const httplib::Request& request, httplib::Response& response) {
         response.set_content(request.body + request.get_header_value("Content-Type"), "x/y");
      });
      url += std::to_string(server.bind_to_any_port("127.0.0.1"));
      std::thread thread([&server] { server.listen_after_bind(); });
      const auto client = NewHttpClient(url);
      const HttpAnswer answer = client->Get("/a%20b?c=%26", "text/csv");
      EXPECT_EQ(answer.status, 404);
      EXPECT_EQ(answer.body, "/a%20b?c=%26 text/csv");
      EXPECT_EQ(client->Post("/p", "[]").body, "[]application/json");
      server.stop();
      thread.join();
   }
   EXPECT_EQ(MessageOf([&] { NewHttpClient(url)->Get("/", ""); }),
             "cannot reach " + url + ": nothing accepts connections there; is agentd running?");
}

TEST_F(AgentctlTest, RefusesAnswersOfAnotherForm)
{
   const std::string good = R"({"status":"success","data":)";
   const std::string oneSample = R"([{"timestamp":"2026-11-21T09:05:00Z"}])";
   const std::string series = R"([{"id":{"counterId":0,"instance":""},"value":[)";
   const std::pair<std::string, std::string> cases[] = {
      {"<html>", "no JSON"},
      {"[]", "'status'"},
      {R"({"status":"success"})", "'data'"},
      {R"({"status":"error","error":{"type":"x"}})", "'message'"},
      {std::string(100000, '[') + std::string(100000, ']'), "too deep"},
      {good + "7}", "no list"},
      {good + Samples("[]", series + "1]}]") + "}", "one value for each"},
      {good + Samples(R"([{"timestamp":"now"}])", "[]") + "}", "no time"},
      {good + Samples(oneSample, series + "9223372036854775808]}]") + "}", "no whole number"},
   };
   EXPECT_EQ(MessageOf([&] { api.GetEntities(); }), "nothing\nthere"); // the agent's own text
   for (const auto& [body, complaint] : cases) {
      agent.answers["/api/v1/query"] = {body};
      EXPECT_NE(MessageOf([&] { api.Query({}); }).find(complaint), std::string::npos) << complaint;
   }
}

TEST_F(AgentctlTest, QueryEncodesWhatItAsksAndShowsUnitsAndGaps)
{
   agent.Answer("/api/v1/providers/a%2F%26%C3%BC", R"({"refreshRate":20})");
   agent.Answer(
      "/api/v1/query",
      Samples(R"([{"timestamp":"2026-11-21T09:05:00Z"},{"timestamp":"2026-11-21T09:05:20Z"}])",
              R"([{"id":{"counterId":1,"instance":""},"value":[1234,null]},
                             {"id":{"counterId":11,"instance":"0\u001b"},"value":[7,8]},
                             {"id":{"counterId":99,"instance":""},"value":[1,2]}])"));
   options.entityId = "a/&ü";
   options.metrics = {"cpu.usage:*", "cpu.ready:0+1"};
   options.from = "-10m";
   options.maxSample = 2;
   options.utc = true;
   RunQuery(api, options, output, noWait);
   EXPECT_EQ(agent.asked.front(), "/api/v1/providers/a%2F%26%C3%BC");
   EXPECT_EQ(agent.asked.back(),
             "/api/v1/query?entity=a%2F%26%C3%BC&metric=cpu.usage%3A%2A&metric=cpu.ready%3A0%2B1"
             "&startTime=-10m&maxSample=2&intervalId=20");
   EXPECT_EQ(output.text,
             "time (UTC)           cpu.usage.average (%)  cpu.ready:0\\x1b (ms)  99 (?)\n"
             "2026-11-21 09:05:00                12.34 %                     7       1\n"
             "2026-11-21 09:05:20                      -                     8       2\n");
}

TEST_F(AgentctlTest, WatchShowsEachRowOnceAndNewTitlesForOtherMetrics)
{
   const std::string usage = R"([{"id":{"counterId":4,"instance":""},"value":[1]}])";
   const std::string other = R"([{"id":{"counterId":4,"instance":"0"},"value":[2]}])";
   const std::string first = Samples(R"([{"timestamp":"2026-11-21T09:05:00Z"}])", usage);
   for (const std::string& data : {first, first, std::string("[]"),
                                   Samples(R"([{"timestamp":"2026-11-21T09:05:20Z"}])", usage),
                                   Samples(R"([{"timestamp":"2026-11-21T09:05:40Z"}])", other)}) {
      agent.Answer("/api/v1/query", data);
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
                          "2026-11-21 09:05:40                     2\n");
   EXPECT_EQ(agent.asked.back(), "/api/v1/query?entity=ha-host&startTime=2026-11-21T09%3A05%3A20Z"
                                 "&intervalId=20");
}

TEST_F(AgentctlTest, CsvComesAsItIsButNotToATerminalAndJsonEscapesAllThatControls)
{
   options.entityId = "ha-host";
   agent.Answer("/api/v1/query", "[]");
   agent.answers["csv:/api/v1/query"] = {"time\r\n"};
   for (const QueryFormat format : {QueryFormat::TABLE, QueryFormat::CSV, QueryFormat::JSON}) {
      options.format = format;
      EXPECT_EQ(MessageOf([&] { RunQuery(api, options, output, noWait); }), "no data of ha-host");
   }
   const auto run = [&](QueryFormat format, bool isTerminal) {
      options.format = format;
      output.isTerminal = isTerminal;
      output.text.clear();
      RunQuery(api, options, output, noWait);
      return output.text;
   };
   const std::string csv = "time,cpu.usage:\x1b[2J\r\n2026-11-21T09:05:00Z,1\r\n";
   agent.answers["csv:/api/v1/query"] = {csv};
   EXPECT_EQ(run(QueryFormat::CSV, false), csv);
   EXPECT_EQ(run(QueryFormat::CSV, true), "time,cpu.usage:\\x1b[2J\n2026-11-21T09:05:00Z,1\n");
   agent.answers.erase("/api/v1/query");
   agent.Answer("/api/v1/query", "[{\"z\":\"\xc2\x9b\x7f\",\"a\":18446744073709551615}]");
   EXPECT_EQ(run(QueryFormat::JSON, false), "{\n  \"status\": \"success\",\n  \"data\": [\n    {\n"
                                            "      \"z\": \"\\u009b\\u007f\",\n"
                                            "      \"a\": 18446744073709551615\n    }\n  ]\n}\n");
}

TEST_F(AgentctlTest, AsksForNoMoreEntitiesAtOnceThanTheAgentTakes)
{
   agent.Answer("/api/v1/query", Samples("[]", "[]"));
   for (const size_t count : {64U, 65U}) {
      const std::vector<Entity> entities(count, Entity{"", "x", "", {}, {}});
      EXPECT_EQ(api.QueryNewest(entities, {}, 20).size(), count / 64 + count % 64);
   }
   const std::string body = agent.lastBody;
   EXPECT_EQ(body.find("entity"), body.rfind("entity")); // the one that was left
}

TEST_F(AgentctlTest, TopAsksOnceForAllAndSortsByWhatIsUsed)
{
   agent.Answer("/api/v1/entities",
                R"([{"type":"ResourcePool","id":"p","name":"pool","state":null,"parent":null},
                     {"type":"VirtualMachine","id":"old","name":"off","state":"poweredOff","parent":"p"},
                     {"type":"VirtualMachine","id":"v","name":"web\u001b[2J","state":"poweredOn","parent":"p"},
                     {"type":"HostSystem","id":"ha-host","name":"host","state":null,"parent":null}])");
   const std::string times =
      R"("sampleInfo":[{"timestamp":"2026-11-21T09:05:00Z"},{"timestamp":"2026-11-21T09:05:20Z"}])";
   agent.Answer("/api/v1/query",
                R"([{"entity":{"id":"v"},)" + times +
                   R"(,"value":[{"id":{"counterId":11,"instance":"0"},"value":[9,30]},
                      {"id":{"counterId":11,"instance":"1"},"value":[9,12]},
                      {"id":{"counterId":4,"instance":""},"value":[9,300]}]},
             {"entity":{"id":"ha-host"},)" +
                   times +
                   R"(,"value":[{"id":{"counterId":0,"instance":""},"value":[1,1234]},
                      {"id":{"counterId":4,"instance":""},"value":[1,2000]}]},
             {"entity":{"id":"old"},"sampleInfo":[{"timestamp":"2026-11-21T09:00:00Z"}],
              "value":[{"id":{"counterId":4,"instance":""},"value":[5]}]}])");
   PrintTop(api, 1, output, noWait);
   EXPECT_EQ(output.text,
             "NAME        TYPE  STATE  POOL  CPU MHz  CPU %  READY ms  MEM MB  MEM %  DISK KB/s  "
             "NET KB/s\n"
             "host        host  -      -        2000  12.34         -       -      -          -  "
             "       -\n"
             "web\\x1b[2J  vm    on     pool      300      -        42       -      -          -  "
             "       -\n"
             "off         vm    off    pool        -      -         -       -      -          -  "
             "       -\n"
             "pool        pool  -      -           -      -         -       -      -          -  "
             "       -\n");
   const auto asked = agent.asked;
   EXPECT_EQ(std::count(asked.begin(), asked.end(), "/api/v1/query"), 1);
   for (const char* const id : {R"("entity":"p")", R"("entity":"old")", R"("entity":"ha-host")"}) {
      EXPECT_NE(agent.lastBody.find(id), std::string::npos);
   }
   TopView view = TopSource(api).Read();
   SortRows(view.rows, *GetSortKey('r'));
   EXPECT_EQ(view.rows.front().entity.id, "v");
   const auto lines = FormatRows(view.rows, 89);
   EXPECT_EQ(lines[1].substr(0, 13), "web\\x1b…  v");
}

constexpr tcflag_t kLineFlags = ECHO | ICANON;

/// A screen in a process and on a terminal of its own, which draws its size and ends on q with 3.
class ScreenProcess {
public:
   ScreenProcess()
   {
      winsize size = {};
      size.ws_col = 30;
      size.ws_row = 5;
      _pid = ::forkpty(&_terminal, nullptr, nullptr, &size);
      if (_pid == 0) {
         ::_exit(RunChild());
      }
   }
   ~ScreenProcess()
   {
      ::kill(_pid, SIGKILL);
      ::close(_terminal);
   }
   ScreenProcess(const ScreenProcess&) = delete;
   ScreenProcess& operator=(const ScreenProcess&) = delete;

   void Signal(int signal) { ::kill(_pid, signal); }
   void Type(char key) { EXPECT_EQ(::write(_terminal, &key, 1), 1); }
   void Resize(unsigned short columns)
   {
      winsize size = {};
      size.ws_col = columns;
      size.ws_row = 5;
      ::ioctl(_terminal, TIOCSWINSZ, &size);
   }
   /// Reads until the text comes; whether it did.
   bool Expect(const std::string& text)
   {
      std::string seen;
      char piece[256];
      while (seen.find(text) == std::string::npos) {
         pollfd readable = {_terminal, POLLIN, 0};
         const ssize_t length =
            ::poll(&readable, 1, 10000) > 0 ? ::read(_terminal, piece, sizeof piece) : -1;
         if (length <= 0) {
            return false;
         }
         seen.append(piece, static_cast<size_t>(length));
      }
      return true;
   }
   /// Those of kLineFlags that are on.
   tcflag_t GetLineFlags() const
   {
      termios now = {};
      ::tcgetattr(_terminal, &now);
      return now.c_lflag & kLineFlags;
   }
   /// Waits for its end (or stop, with WUNTRACED), ten seconds at most.
   int WaitForStatus(int options = 0)
   {
      int status = -1;
      for (int i = 0; i < 1000 && ::waitpid(_pid, &status, options | WNOHANG) == 0; ++i) {
         ::poll(nullptr, 0, 10);
      }
      return status;
   }

private:
   static int RunChild()
   {
      const auto standardOutput = NewStandardOutput();
      Screen screen(*standardOutput);
      while (true) {
         screen.Show({"columns=" + std::to_string(screen.GetSize().columns) + ";"});
         if (screen.Wait(20000).key == 'q') {
            return 3;
         }
      }
   }

   int _terminal = -1;
   pid_t _pid = -1;
};

constexpr char kLeave[] = "\x1b[?1049l";

TEST(ScreenTest, GivesTheTerminalBackWhateverEndsIt)
{
   for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      ScreenProcess process;
      ASSERT_TRUE(process.Expect("columns=30;"));
      EXPECT_EQ(process.GetLineFlags(), 0U);
      process.Signal(signal);
      EXPECT_TRUE(process.Expect(kLeave)) << signal;
      const int status = process.WaitForStatus();
      EXPECT_EQ(process.GetLineFlags(), kLineFlags) << signal;
      if (signal == SIGINT || signal == SIGTERM) {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << signal;
      } else {
         EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
      }
   }
}

TEST(ScreenTest, FollowsItsSizeAndItsStops)
{
   ScreenProcess process;
   ASSERT_TRUE(process.Expect("columns=30;"));
   process.Resize(40);
   EXPECT_TRUE(process.Expect("columns=40;"));
   process.Resize(8);
   EXPECT_TRUE(process.Expect("columns…"));
   process.Signal(SIGTSTP);
   EXPECT_TRUE(process.Expect(kLeave));
   EXPECT_TRUE(WIFSTOPPED(process.WaitForStatus(WUNTRACED)));
   EXPECT_EQ(process.GetLineFlags(), kLineFlags);
   process.Signal(SIGCONT);
   EXPECT_TRUE(process.Expect("columns…"));
   EXPECT_EQ(process.GetLineFlags(), 0U);
   process.Type('q');
   EXPECT_TRUE(process.Expect(kLeave));
   EXPECT_EQ(WEXITSTATUS(process.WaitForStatus()), 3);
   EXPECT_EQ(process.GetLineFlags(), kLineFlags);
}

} // namespace
