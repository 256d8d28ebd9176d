#pragma once

#include "corvax/logger.h"
#include "corvax/scheduler.h"
#include "corvax/system.h"
#include "corvax/xmlConfig.h"
#include "metrix/hykStatsCollector.h"
#include "metrix/statsDepot.h"
#include "simHost/simHost.h"

#include <memory>
#include <string>
#include <vector>

/// The work that is measured: the stats of a simulated host, in the agent's own intervals.
namespace Bench {

constexpr int kFinePeriodSec = 20;
constexpr unsigned kFineSamples = 180;
constexpr int kCoarsePeriodSec = 300;
constexpr unsigned kCoarseSamples = 432;
constexpr char kFineName[] = "RealTime";
constexpr char kCoarseName[] = "5min";
constexpr char kDepotName[] = "hostAgentStats";
constexpr Metrix::TimeStamp kFirstPass = 1767225600; ///< a multiple of both periods
constexpr size_t kStats = 10000;
constexpr unsigned kPassesPerRollup = kCoarsePeriodSec / kFinePeriodSec;

/// What the program was told: where its files go ("/" at the end), and whether figures may be
/// rough.
struct Settings {
   std::string directory;
   bool isQuick = false;
};
Settings& GetSettings();

/// `full`, or a quarter of it where figures may be rough.
unsigned Scaled(unsigned full);

/// A directory below that of the settings, removed at the end. The path ends with "/".
class ScratchDirectory {
public:
   ScratchDirectory();
   ~ScratchDirectory();
   ScratchDirectory(const ScratchDirectory&) = delete;
   ScratchDirectory& operator=(const ScratchDirectory&) = delete;

   const std::string& GetPath() const { return _path; }

private:
   std::string _path;
};

/// The application object for the length of a scope, with loggers that print nothing.
class QuietAgent {
public:
   QuietAgent();
   ~QuietAgent();
   QuietAgent(const QuietAgent&) = delete;
   QuietAgent& operator=(const QuietAgent&) = delete;

   Corvax::Logger* GetLogger() const { return _logger.Get(); }
   Corvax::XmlConfig& GetConfig() const { return *_config; }

private:
   const Corvax::Ref<Corvax::Logger> _logger;
   Corvax::Ref<Corvax::XmlConfig> _config;
};

/// The wall clock, and a timer facility that never calls, for the length of a scope.
class SteppedTime : public Corvax::Clock {
public:
   explicit SteppedTime(Metrix::TimeStamp nowSec);
   ~SteppedTime() override;
   SteppedTime(const SteppedTime&) = delete;
   SteppedTime& operator=(const SteppedTime&) = delete;

   int64_t GetTime() override { return _nowUs; }
   int64_t GetMonotonicTime() override { return _nowUs; }
   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override { userUs = systemUs = 0; }
   void Advance(int64_t seconds) { _nowUs += seconds * 1000000; }

private:
   int64_t _nowUs;
   const Corvax::Ref<Corvax::Scheduler> _scheduler;
};

struct PlannedStat {
   std::string entityId;
   std::string statName;
   Metrix::StatsDepot::StatType type;
   int scalingFactor;
   std::vector<Metrix::StatsDepot::RollupType> rollups;
};
/// In the order in which a collector's run comes to them.
using StatPlan = std::vector<PlannedStat>;

/// A depot with the agent's intervals and no stats.
Corvax::Ref<Metrix::StatsDepot> NewDepot(const std::string& directory, Corvax::Logger* logger);
void CreateStats(Metrix::StatsDepot& depot, const StatPlan& plan);

/// The collector on a simulated host, writing into a depot of its own. Needs an application object.
class SimulatedCollection {
public:
   /// `options` as ParseSimOptions reads them.
   SimulatedCollection(const std::string& options, Corvax::Logger* logger);
   ~SimulatedCollection();
   SimulatedCollection(const SimulatedCollection&) = delete;
   SimulatedCollection& operator=(const SimulatedCollection&) = delete;

   /// One run, 20 seconds after the one before.
   void Run();
   /// Longest time in microseconds that the depot's lock was held since this was asked last.
   double TakeLongestHoldUs();
   /// The stats that the runs have made.
   const StatPlan& GetPlan() const;
   const std::string& GetDirectory() const { return _scratch.GetPath(); }

private:
   class ObservedDepot;

   const ScratchDirectory _scratch;
   SteppedTime _time{kFirstPass};
   SimHost::SimHost _host;
   const Corvax::Ref<ObservedDepot> _depot;
   const Corvax::Ref<Metrix::HykStatsCollector> _collector;
};

/// The simulated host whose whole runs are measured.
extern const char kSimulatedHost[];

/// A simulated host, as options for ParseSimOptions, and the stats that its runs bring.
struct CapturedHost {
   std::string options;
   StatPlan plan;
};
/// The smallest one whose runs bring at least `count` samples; types and rollups are the
/// catalogue's.
CapturedHost CaptureHost(size_t count);
/// So many of its stats; captured once for each number.
const StatPlan& CapturePlan(size_t count);
/// The same with average, maximum and minimum of every stat.
StatPlan WithThreeRollups(StatPlan plan);

} // namespace Bench
