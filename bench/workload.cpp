#include "bench/workload.h"

#include "corvax/application.h"
#include "corvax/exception.h"
#include "metrix/idMapFormat.h"

#include <stdlib.h>

#include <algorithm>
#include <map>
#include <utility>

namespace Bench {

namespace {

using Corvax::MakeRef;
using Corvax::Ref;
using Metrix::StatsDepot;
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

ScratchDirectory::ScratchDirectory(const std::string& parent) : _path(parent + "XXXXXX")
{
   if (::mkdtemp(_path.data()) == nullptr) {
      throw Corvax::Exception("Cannot create a directory in " + parent);
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

SteppedTime::SteppedTime(TimeStamp nowSec) : _scheduler(MakeRef<IdleScheduler>())
{
   Set(nowSec);
   Corvax::System::SetClock(this);
   Corvax::System::SetThisThread(_scheduler.Get());
}

SteppedTime::~SteppedTime()
{
   Corvax::System::SetThisThread(nullptr);
   Corvax::System::SetClock(nullptr);
}

void SteppedTime::Set(TimeStamp nowSec)
{
   _nowUs = static_cast<int64_t>(nowSec) * Corvax::kMicrosecondsPerSecond;
}

Ref<StatsDepot> NewDepot(const std::string& directory, Corvax::Logger* logger,
                         const Metrix::JournalOptions& journal)
{
   Ref<StatsDepot> depot;
   Metrix::GetStatsDepot(directory, kDepotName, logger, kMaxStatsPurged, depot, journal);
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

SimulatedCollection::SimulatedCollection(const std::string& options,
                                         const Metrix::JournalOptions& journal,
                                         Corvax::Logger* logger)
   : _host(SimHost::ParseSimOptions(options), logger),
     _depot(_lockMeter.Observe([&] { return NewDepot(_scratch.GetPath(), logger, journal); })),
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
   _time.Set(GetStamp(_runs++));
   _collector->CollectStatsWorker();
}

namespace {

/// The stats of a new depot in the order of their creation.
StatPlan ReadPlan(const std::string& directory)
{
   namespace Format = Metrix::IdMapFormat;
   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(directory + kDepotName + ".idMap", Corvax::FILE_READ,
              Corvax::FileCreation::OPEN_EXISTING);
   std::vector<std::byte> bytes(file->GetSize());
   bytes.resize(file->Read(bytes.data(), bytes.size()));
   StatPlan plan;
   for (size_t at = 0; at + Format::kRecordSize <= bytes.size(); at += Format::kRecordSize) {
      // A stat's raw series comes before its rollups.
      const Format::Record record = Format::DecodeRecord(&bytes[at]);
      const auto rollup = static_cast<StatsDepot::RollupType>(record.rollup);
      if (rollup == StatsDepot::ROLLUP_NONE) {
         plan.push_back({std::string(record.entityId),
                         std::string(record.statName),
                         static_cast<StatsDepot::StatType>(record.statType),
                         record.scalingFactor,
                         {}});
      } else {
         plan.back().rollups.push_back(rollup);
      }
   }
   return plan;
}

StatPlan CapturePlanOf(const std::string& options)
{
   const QuietAgent agent;
   SimulatedCollection collection(options, kNoJournal, agent.GetLogger());
   collection.Run();
   return ReadPlan(collection.GetDirectory());
}

CapturedHost CaptureHostOf(size_t vms)
{
   const std::string options = "vms=" + std::to_string(vms) + kRestOfHost;
   return {options, CapturePlanOf(options)};
}

} // namespace

const StatPlan& CaptureSimulatedHost()
{
   static const StatPlan plan = CapturePlanOf(kSimulatedHost);
   return plan;
}

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
   constexpr size_t kThree = 3;
   for (PlannedStat& stat : plan) {
      for (const auto rollup :
           {StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN}) {
         if (stat.rollups.size() < kThree && !std::ranges::count(stat.rollups, rollup)) {
            stat.rollups.push_back(rollup);
         }
      }
   }
   return plan;
}

} // namespace Bench
