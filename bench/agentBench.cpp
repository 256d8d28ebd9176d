#include "bench/agentProcess.h"
#include "bench/filledDepot.h"
#include "bench/keepAliveClient.h"
#include "bench/meters.h"
#include "bench/processFigures.h"
#include "bench/recording.h"
#include "bench/resultLines.h"
#include "corvax/exception.h"
#include "corvax/system.h"
#include "corvax/thread.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <string_view>
#include <thread>

/// Measurements of the agent as a process, on its simulated host.
namespace Bench {

namespace {

constexpr unsigned kRepetitions = 5;
constexpr unsigned kRequests = 2000;
constexpr unsigned kClients = 8;
constexpr size_t kMinSamples = kFineSamples - 1; // of an hour, before the newest run has ended
constexpr int kSettleSec = 3;                    // after a run
constexpr unsigned kIdleSec = 12;                // fits in an interval together with kSettleSec
constexpr unsigned kCountedRuns = 12;

void SleepSeconds(double seconds)
{
   std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

int64_t GetTimeSec()
{
   return Corvax::System::GetTime() / Corvax::kMicrosecondsPerSecond;
}

/// Sleeps until the next run has certainly ended.
void WaitForNextRun()
{
   SleepSeconds(static_cast<double>(kFinePeriodSec - GetTimeSec() % kFinePeriodSec + kSettleSec));
}

std::string PercentEncode(const std::string& text)
{
   std::string encoded;
   for (const char c : text) {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
      encoded += code;
   }
   return encoded;
}

/// Requests for the last hour of random stats.
std::vector<std::string> MakeRequests(const StatPlan& plan)
{
   const Metrix::StatsMetadata metadata;
   std::mt19937 random; // default seed: the same requests every time
   std::vector<std::string> requests;
   for (unsigned i = 0; i < kRequests; ++i) {
      const PlannedStat& stat = plan[random() % plan.size()];
      const int32_t counterId = metadata.GetStatsDepotData(stat.statName)->GetId();
      const std::string instance = Metrix::StatsMetadata::GetInstanceId(stat.statName);
      requests.push_back(KeepAliveClient::FormatRequest(
         "/api/v1/query?startTime=-1h&intervalId=" + std::to_string(kFinePeriodSec) +
         "&entity=" + PercentEncode(stat.entityId) + "&metric=" +
         PercentEncode(std::to_string(counterId) + (instance.empty() ? "" : ":" + instance))));
   }
   return requests;
}

void CheckAnswer(const std::string& body)
{
   const std::string kValue = "\"timestamp\"";
   size_t samples = 0;
   for (size_t at = body.find(kValue); at != body.npos; at = body.find(kValue, at + 1)) {
      ++samples;
   }
   if (samples < kMinSamples) {
      throw Corvax::Exception("The agent's answer lacks samples: " + body);
   }
}

/// An agent on a simulated host, with a depot that a killed process has left.
class RunningAgent {
public:
   RunningAgent(const char* who, const Metrix::JournalOptions& journal)
      : _who(who), _checkpointSec(journal.checkpointSec)
   {
      const std::string stats = _state.GetPath() + "stats/";
      Corvax::System::GetFactory().CreateDirectory(stats);
      RecordAndKill(CaptureSimulatedHost(), stats, journal,
                    static_cast<Metrix::TimeStamp>(GetTimeSec() / kFinePeriodSec * kFinePeriodSec));
   }

   void Start(const std::string& program)
   {
      const std::string config = _state.GetPath() + "config.xml";
      std::ofstream(config) << "<config><plugins><metrix><checkpointSec>" << _checkpointSec
                            << "</checkpointSec></metrix></plugins></config>\n";
      const std::vector<std::string> arguments = {"--backend",    "simulated", "--sim",
                                                  kSimulatedHost, "--config",  config};
      _agent.emplace(program, _state.GetPath(), arguments);
      _agent->WaitForPort();
   }

   void StartMeasuring()
   {
      _cpuUs = GetThreadsCpuUs(_agent->GetId());
      _io = IoCounts::Read(_agent->GetId());
   }
   void Report(unsigned runs, ResultLines& lines) const
   {
      const double cpuUs = GetThreadsCpuUs(_agent->GetId()) - _cpuUs;
      const IoCounts io = IoCounts::Read(_agent->GetId()) - _io;
      const auto samples = static_cast<double>(runs * CaptureSimulatedHost().size());
      lines.Add("agent-run", _who, "us", cpuUs / samples);
      // Over a few runs it depends on whether the kernel wrote back just before or just after.
      if (!GetSettings().isQuick) {
         lines.Add("agent-device-day", _who, "GB",
                   io.deviceBytes * GetGbPerDay(runs * kFinePeriodSec));
      }
   }
   double GetMib() const { return GetResidentMib(_agent->GetId()); }

private:
   const char* const _who;
   const int _checkpointSec;
   const ScratchDirectory _state;
   std::optional<AgentProcess> _agent;
   double _cpuUs = 0;
   IoCounts _io;
};

class AgentBench {
public:
   explicit AgentBench(const std::string& program)
      : _program(program), _host(CaptureHost(kStats)), _plan(WithThreeRollups(_host.plan)),
        _requests(MakeRequests(_plan)), _repetitions(GetSettings().isQuick ? 1 : kRepetitions)
   {
      const std::string stats = _full.GetPath() + "stats/";
      Corvax::System::GetFactory().CreateDirectory(stats);
      MakeFilledDepot(stats, _plan, static_cast<Metrix::TimeStamp>(GetTimeSec()));
   }

   void RunAll()
   {
      MeasureStart();
      {
         AgentProcess agent(_program, _full.GetPath(), Arguments(kFinePeriodSec));
         const int port = agent.WaitForPort();
         WaitForNextRun();
         MeasureMemory(agent);
         MeasureIdle(agent);
         MeasureOneClient(port);
         MeasureClients(port);
      }
      CountCalls();
      MeasureRuns();
   }

   /// Whole processes side by side, over a rollup. When they reach the disk is up to the kernel.
   void MeasureRuns()
   {
      RunningAgent ours(kOurs, kJournal);
      RunningAgent withoutJournal(kOursWithoutJournal, kNoJournal);
      ours.Start(_program);
      withoutJournal.Start(_program);
      WaitForNextRun();
      ours.StartMeasuring();
      withoutJournal.StartMeasuring();
      const unsigned runs = GetSettings().isQuick ? 1 : kStampsPerRollup;
      SleepSeconds(runs * kFinePeriodSec);
      ours.Report(runs, _lines);
      withoutJournal.Report(runs, _lines);
      _lines.Add("agent-journal-mib", kOurs, "MiB", ours.GetMib() - withoutJournal.GetMib());
   }

   void Print() const { _lines.Print(std::cout); }

private:
   std::vector<std::string> Arguments(int intervalSec) const
   {
      return {"--backend",   "simulated",  "--sim",
              _host.options, "--interval", std::to_string(intervalSec)};
   }

   /// From the process's start to its first answer, with the files in the page cache.
   void MeasureStart()
   {
      for (unsigned i = 0; i < _repetitions; ++i) {
         const double startUs = GetWallUs();
         AgentProcess agent(_program, _full.GetPath(), Arguments(kFinePeriodSec));
         KeepAliveClient client(agent.WaitForPort());
         const std::string& body = client.Send(_requests[i]);
         _lines.Add("start", kOurs, "ms", (GetWallUs() - startUs) / 1e3);
         CheckAnswer(body);
      }
   }

   /// Compares with an agent on the same host that has not collected anything yet.
   void MeasureMemory(const AgentProcess& full)
   {
      const ScratchDirectory scratch;
      AgentProcess empty(_program, scratch.GetPath(), Arguments(kCoarsePeriodSec));
      empty.WaitForPort();
      const double fullMib = GetResidentMib(full.GetId());
      _lines.Add("resident-more-mib", kOurs, "MiB", fullMib - GetResidentMib(empty.GetId()));
      _lines.Add("resident-mib", kOurs, "MiB", fullMib);
   }

   void MeasureIdle(const AgentProcess& agent)
   {
      const unsigned seconds = Scaled(kIdleSec);
      const double beforeUs = GetThreadsCpuUs(agent.GetId());
      SleepSeconds(seconds);
      const double usedUs = GetThreadsCpuUs(agent.GetId()) - beforeUs;
      _lines.Add("idle-ms-per-s", kOurs, "ms/s", usedUs / 1e3 / seconds);
   }

   void MeasureOneClient(int port)
   {
      KeepAliveClient client(port);
      CheckAnswer(client.Send(_requests[0]));
      for (unsigned i = 0; i < _repetitions; ++i) {
         std::vector<double> times;
         for (const std::string& request : _requests) {
            const double startUs = GetWallUs();
            client.Send(request);
            times.push_back(GetWallUs() - startUs);
         }
         _lines.Add("http-1", kOurs, "us", GetPercentile(times, 0.5));
         _lines.Add("http-1-p99", kOurs, "us", GetPercentile(times, 0.99));
      }
   }

   void MeasureClients(int port)
   {
      for (unsigned i = 0; i < _repetitions; ++i) {
         const double startUs = GetWallUs();
         std::atomic<unsigned> failures = 0;
         std::vector<std::jthread> clients;
         clients.reserve(kClients);
         for (unsigned k = 0; k < kClients; ++k) {
            clients.push_back(
               Corvax::StartThread("client-" + std::to_string(k), [&, k](const std::stop_token&) {
                  failures += SendAll(port, k) ? 0 : 1;
               }));
         }
         clients.clear();
         if (failures > 0) {
            throw Corvax::Exception("Not all requests of the clients were answered");
         }
         _lines.Add("http-8", kOurs, "1/s", kClients * kRequests / ((GetWallUs() - startUs) / 1e6));
      }
   }

   /// Sends all requests on a new connection, beginning at a different one for each client.
   bool SendAll(int port, unsigned number) const
   {
      try {
         KeepAliveClient client(port);
         for (unsigned i = 0; i < kRequests; ++i) {
            client.Send(_requests[(i + number * kRequests / kClients) % kRequests]);
         }
         return true;
      } catch (const Corvax::Exception& failure) {
         std::cerr << "agentBench: " << failure.what() << '\n';
         return false;
      }
   }

   /// The runs are a second apart and roll nothing up.
   void CountCalls()
   {
      const ScratchDirectory scratch;
      AgentProcess agent(_program, scratch.GetPath(), Arguments(1));
      agent.WaitForPort();
      SleepSeconds(kSettleSec);
      const unsigned runs = Scaled(kCountedRuns);
      const IoCounts before = IoCounts::Read(agent.GetId());
      SleepSeconds(runs);
      const IoCounts counts = IoCounts::Read(agent.GetId()) - before;
      _lines.Add("agent-calls", kOurs, "calls", counts.calls / runs);
   }

   const std::string _program;
   const CapturedHost _host;
   const StatPlan _plan;
   const std::vector<std::string> _requests;
   const unsigned _repetitions;
   const ScratchDirectory _full;
   ResultLines _lines;
};

int Main(int argc, char** argv)
{
   if (argc < 3) {
      std::fprintf(stderr, "usage: agentBench AGENTD DIRECTORY [--quick] [--only-runs]\n");
      return 2;
   }
   const std::set<std::string_view> options(argv + 3, argv + argc);
   GetSettings().directory = argv[2] + std::string("/");
   GetSettings().isQuick = options.contains("--quick");
   try {
      AgentBench bench(argv[1]);
      if (options.contains("--only-runs")) {
         bench.MeasureRuns();
      } else {
         bench.RunAll();
      }
      bench.Print();
      return EXIT_SUCCESS;
   } catch (const std::exception& failure) {
      std::cerr << "agentBench: " << failure.what() << '\n';
      return EXIT_FAILURE;
   }
}

} // namespace

} // namespace Bench

int main(int argc, char** argv)
{
   return Bench::Main(argc, argv);
}
