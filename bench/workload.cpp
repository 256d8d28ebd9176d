#include "bench/workload.h"

#include "bench/meters.h"
#include "corvax/application.h"
#include "corvax/exception.h"

#include <stdlib.h>

#include <algorithm>
#include <map>
#include <utility>

namespace Bench {

namespace {

using Corvax::MakeRef;
using Corvax::Ref;
using Metrix::StatsDepot;
using Metrix::StatVal;
using Metrix::TimeStamp;

constexpr char kRestOfHost[] = ",pools=20,disks=8,nics=4"; // apart from its VMs

class SilentLogger : public Corvax::Logger, public Corvax::ObjectImpl {
public:
   bool IsEnabled(int /*level*/) const override { return false; }
   void SetLevel(const std::string& /*levelName*/) override {}
   void Write(int /*level*/, const std::string& /*text*/) override {}
};

class SilentLogManager : public Corvax::LogManager, public Corvax::ObjectImpl {
public:
   explicit SilentLogManager(Ref<Corvax::Logger> logger) : _logger(std::move(logger)) {}
   Ref<Corvax::Logger> GetLogger(const std::string& /*name*/) override { return _logger; }
   void SetDefaultLevel(const std::string& /*levelName*/) override {}

private:
   const Ref<Corvax::Logger> _logger;
};

class IdleScheduler : public Corvax::Scheduler, public Corvax::ObjectImpl {
public:
   Ref<Corvax::ScheduledItem> ScheduleOnce(Ref<Corvax::Functor<>> /*functor*/,
                                           int64_t /*delayUs*/) override
   {
      return MakeRef<Item>();
   }

private:
   struct Item : Corvax::ScheduledItem, Corvax::ObjectImpl {
      bool Cancel() override { return false; }
      bool IsPending() const override { return false; }
   };
};

} // namespace

const char kSimulatedHost[] = "vms=200,pools=20,disks=8,nics=4";

Settings& GetSettings()
{
   static Settings settings;
   return settings;
}

unsigned Scaled(unsigned full)
{
   return GetSettings().isQuick ? full / 4 : full;
}

ScratchDirectory::ScratchDirectory() : _path(GetSettings().directory + "XXXXXX")
{
   if (::mkdtemp(_path.data()) == nullptr) {
      throw Corvax::Exception("Cannot create a directory in " + GetSettings().directory);
   }
   _path += '/';
}

ScratchDirectory::~ScratchDirectory()
{
   Corvax::System::GetFactory().Remove(_path);
}

QuietAgent::QuietAgent() : _logger(MakeRef<SilentLogger>())
{
   Corvax::GetXmlConfig("", _config);
   Corvax::Service::SetApp(
      Corvax::NewApplication(MakeRef<SilentLogManager>(_logger), Corvax::NewConfigStore(_config)));
}

QuietAgent::~QuietAgent()
{
   Corvax::Service::SetApp(nullptr);
}

SteppedTime::SteppedTime(TimeStamp nowSec)
   : _nowUs(static_cast<int64_t>(nowSec) * Corvax::kMicrosecondsPerSecond),
     _scheduler(MakeRef<IdleScheduler>())
{
   Corvax::System::SetClock(this);
   Corvax::System::SetThisThread(_scheduler.Get());
}

SteppedTime::~SteppedTime()
{
   Corvax::System::SetThisThread(nullptr);
   Corvax::System::SetClock(nullptr);
}

Ref<StatsDepot> NewDepot(const std::string& directory, Corvax::Logger* logger)
{
   constexpr int kMaxStatsPurged = 1000; // the agent's default
   Ref<StatsDepot> depot;
   Metrix::GetStatsDepot(directory, kDepotName, logger, kMaxStatsPurged, depot);
   const Corvax::Locker lock(depot.Get());
   depot->Create();
   depot->AddInterval(kFineName, kFinePeriodSec, kFineSamples);
   depot->AddInterval(kCoarseName, kCoarsePeriodSec, kCoarseSamples);
   return depot;
}

void CreateStats(StatsDepot& depot, const StatPlan& plan)
{
   const Corvax::Locker lock(&depot);
   for (const PlannedStat& stat : plan) {
      depot.CreateStat(stat.entityId, stat.statName, stat.type, stat.scalingFactor, stat.rollups);
   }
}

/// Forwards to a depot, and records how long its lock was held and which stats were created.
class SimulatedCollection::ObservedDepot : public StatsDepot, public Corvax::ObjectImpl {
public:
   explicit ObservedDepot(Ref<StatsDepot> depot) : _depot(std::move(depot)) {}

   void Lock() override
   {
      _depot->Lock();
      if (_depth++ == 0) {
         _lockedUs = GetWallUs();
      }
   }
   void Unlock() override
   {
      const bool isLast = --_depth == 0;
      _depot->Unlock();
      if (isLast) {
         longestHoldUs = std::max(longestHoldUs, GetWallUs() - _lockedUs);
      }
   }
   bool IsLocked() const override { return _depot->IsLocked(); }

   void CreateStat(const std::string& entityId, const std::string& statName, StatType type,
                   int scalingFactor, const std::vector<RollupType>& rollups) override
   {
      _depot->CreateStat(entityId, statName, type, scalingFactor, rollups);
      plan.push_back({entityId, statName, type, scalingFactor, rollups});
   }
   bool AddSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                  StatVal value, StatVal maxVal) override
   {
      return _depot->AddSample(entityId, statName, ts, value, maxVal);
   }

   void Create() override { _depot->Create(); }
   void Load() override { _depot->Load(); }
   void LoadReadOnly() override { _depot->LoadReadOnly(); }
   void Flush() override { _depot->Flush(); }
   void AddInterval(const std::string& name, int samplingPeriod, unsigned int numSamples) override
   {
      _depot->AddInterval(name, samplingPeriod, numSamples);
   }
   void GetIntervals(Corvax::RefVector<Metrix::StatsDepotInterval>& intervals) override
   {
      _depot->GetIntervals(intervals);
   }
   StatVal GetSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                     const std::string& intervalName, RollupType rollup) override
   {
      return _depot->GetSample(entityId, statName, ts, intervalName, rollup);
   }
   int GetSamples(const std::string& entityId, const std::string& statName, TimeStamp begin,
                  TimeStamp end, std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps,
                  const std::string& intervalName, RollupType rollup) override
   {
      return _depot->GetSamples(entityId, statName, begin, end, values, timeStamps, intervalName,
                                rollup);
   }
   StatVal GetRawSample(const std::string& entityId, const std::string& statName,
                        TimeStamp& ts) override
   {
      return _depot->GetRawSample(entityId, statName, ts);
   }
   void GetAvailableStatNames(const std::string& entityId, TimeStamp begin, TimeStamp end,
                              std::vector<std::string>& statNames) override
   {
      _depot->GetAvailableStatNames(entityId, begin, end, statNames);
   }
   TimeStamp GetLatestTimeStamp() override { return _depot->GetLatestTimeStamp(); }
   void DeleteEntityStats(const std::string& entityId) override
   {
      _depot->DeleteEntityStats(entityId);
   }
   void DeleteStat(const std::string& entityId, const std::string& statName) override
   {
      _depot->DeleteStat(entityId, statName);
   }
   void AddMissingRollups(const RollupSource& source) override
   {
      _depot->AddMissingRollups(source);
   }
   int GiveUpColumnsAfter(TimeStamp ts) override { return _depot->GiveUpColumnsAfter(ts); }
   void Checkpoint() override { _depot->Checkpoint(); }
   std::string GetTrouble() override { return _depot->GetTrouble(); }

   StatPlan plan;
   double longestHoldUs = 0;

private:
   const Ref<StatsDepot> _depot;
   int _depth = 0;       // guarded by the lock
   double _lockedUs = 0; // guarded by the lock
};

SimulatedCollection::SimulatedCollection(const std::string& options, Corvax::Logger* logger)
   : _host(SimHost::ParseSimOptions(options), logger),
     _depot(MakeRef<ObservedDepot>(NewDepot(_scratch.GetPath(), logger))),
     _collector(MakeRef<Metrix::HykStatsCollector>(logger, MakeRef<Metrix::StatsMetadata>().Get(),
                                                   _depot.Get(), kFinePeriodSec))
{
   HostCtl::HostFactory::SetProvider(&_host);
   _collector->Start();
}

SimulatedCollection::~SimulatedCollection()
{
   _collector->Stop();
   HostCtl::HostFactory::SetProvider(nullptr);
}

void SimulatedCollection::Run()
{
   _collector->CollectStatsWorker();
   _time.Advance(kFinePeriodSec);
}

double SimulatedCollection::TakeLongestHoldUs()
{
   return std::exchange(_depot->longestHoldUs, 0);
}

const StatPlan& SimulatedCollection::GetPlan() const
{
   return _depot->plan;
}

namespace {

CapturedHost CaptureHostOf(size_t vms)
{
   const QuietAgent agent;
   const std::string options = "vms=" + std::to_string(vms) + kRestOfHost;
   SimulatedCollection collection(options, agent.GetLogger());
   collection.Run();
   return {options, collection.GetPlan()};
}

} // namespace

CapturedHost CaptureHost(size_t count)
{
   // Each VM has nearly the same number of stats.
   constexpr size_t kProbedVms = 10;
   const size_t base = CaptureHostOf(0).plan.size();
   const size_t probed = CaptureHostOf(kProbedVms).plan.size();
   size_t vms = count > base ? (count - base) * kProbedVms / (probed - base) : 0;
   CapturedHost host = CaptureHostOf(vms);
   while (host.plan.size() < count) {
      vms += 1 + vms / 100;
      host = CaptureHostOf(vms);
   }
   return host;
}

const StatPlan& CapturePlan(size_t count)
{
   static std::map<size_t, StatPlan> captured;
   const auto [place, isNew] = captured.try_emplace(count);
   if (isNew) {
      place->second = CaptureHost(count).plan;
      place->second.resize(count);
   }
   return place->second;
}

StatPlan WithThreeRollups(StatPlan plan)
{
   for (PlannedStat& stat : plan) {
      stat.rollups = {StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN};
   }
   return plan;
}

} // namespace Bench
