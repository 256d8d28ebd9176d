#pragma once

#include "bench/lockMeter.h"
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

/// The work under measurement: the stats of a simulated host, in the agent's own intervals.
namespace Bench {

constexpr int kFinePeriodSec = 20;
constexpr unsigned kFineSamples = 180;
constexpr int kCoarsePeriodSec = 300;
constexpr unsigned kCoarseSamples = 432;
constexpr char kFineName[] = "RealTime";
constexpr char kCoarseName[] = "5min";
constexpr char kDepotName[] = "hostAgentStats";
constexpr int kMaxStatsPurged = 1000;                 ///< the agent's default
constexpr Metrix::TimeStamp kFirstStamp = 1767225600; ///< a multiple of both periods
constexpr size_t kStats = 10000;
constexpr unsigned kStampsPerRollup = kCoarsePeriodSec / kFinePeriodSec;

/// As the agent opens its depot.
constexpr Metrix::JournalOptions kJournal{300, 1};
constexpr Metrix::JournalOptions kNoJournal;
/// The depot shortens them to what its ring allows.
constexpr Metrix::JournalOptions kLongestCheckpoints{3600, 1};

/// The time of the stamp with that index.
constexpr Metrix::TimeStamp GetStamp(uint64_t index)
{
   return kFirstStamp + index * kFinePeriodSec;
}

/// From the command line.
struct Settings {
   std::string directory;       ///< of the files, with "/" at the end
   std::string deviceDirectory; ///< the same on a block device of its own; empty: there is none
   bool isQuick = false;        ///< figures may be rough
};
Settings& GetSettings();

/// `full`, or a quarter of it if figures may be rough.
unsigned Scaled(unsigned full);

/// A new directory, removed at the end. The path ends with "/", as that of its parent.
class ScratchDirectory {
public:
   explicit ScratchDirectory(const std::string& parent = GetSettings().directory);
   ~ScratchDirectory();
   ScratchDirectory(const ScratchDirectory&) = delete;
   ScratchDirectory& operator=(const ScratchDirectory&) = delete;

   const std::string& GetPath() const { return _path; }

private:
   std::string _path;
};

/// The application object for the length of a scope. Its loggers print nothing.
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

/// Replaces the clock, and the timers by some that never fire, for the length of a scope.
class SteppedTime : public Corvax::Clock {
public:
   explicit SteppedTime(Metrix::TimeStamp nowSec);
   ~SteppedTime() override;
   SteppedTime(const SteppedTime&) = delete;
   SteppedTime& operator=(const SteppedTime&) = delete;

   int64_t GetTime() override { return _nowUs; }
   int64_t GetMonotonicTime() override { return _nowUs; }
   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override { userUs = systemUs = 0; }
   void Set(Metrix::TimeStamp nowSec);

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
/// In the order of a run's samples.
using StatPlan = std::vector<PlannedStat>;

/// A depot with the agent's intervals and no stats.
Corvax::Ref<Metrix::StatsDepot> NewDepot(const std::string& directory, Corvax::Logger* logger,
                                         const Metrix::JournalOptions& journal);
void CreateStats(Metrix::StatsDepot& depot, const StatPlan& plan);

/// The collector on a simulated host, with its own depot. Needs an application object.
class SimulatedCollection {
public:
   /// `options` as for ParseSimOptions.
   SimulatedCollection(const std::string& options, const Metrix::JournalOptions& journal,
                       Corvax::Logger* logger);
   ~SimulatedCollection();
   SimulatedCollection(const SimulatedCollection&) = delete;
   SimulatedCollection& operator=(const SimulatedCollection&) = delete;

   /// Makes a run, 20 seconds after the last one.
   void Run();
   /// Of the depot's lock, since the last call.
   LockMeter::Holds TakeHolds() { return _lockMeter.Take(); }
   const std::string& GetDirectory() const { return _scratch.GetPath(); }

private:
   const ScratchDirectory _scratch;
   SteppedTime _time{kFirstStamp};
   SimHost::SimHost _host;
   LockMeter _lockMeter;
   const Corvax::Ref<Metrix::StatsDepot> _depot;
   const Corvax::Ref<Metrix::HykStatsCollector> _collector;
   unsigned _runs = 0;
};

/// The simulated host of the measurements of whole runs, as options for ParseSimOptions.
extern const char kSimulatedHost[];
/// The stats of its runs.
const StatPlan& CaptureSimulatedHost();

/// A simulated host, as options for ParseSimOptions, and the stats of its runs.
struct CapturedHost {
   std::string options;
   StatPlan plan;
};
/// The smallest host whose runs have at least `count` samples. Types and rollups are the
/// catalogue's.
CapturedHost CaptureHost(size_t count);
/// The first `count` of its stats. Each count is captured once.
const StatPlan& CapturePlan(size_t count);
/// The same stats, but all with three rollups: the catalogue's, and average, maximum and minimum
/// up to that number.
StatPlan WithThreeRollups(StatPlan plan);

} // namespace Bench
