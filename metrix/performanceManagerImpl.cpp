#include "metrix/performanceManagerImpl.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/dateTime.h"
#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "metrix/depotAside.h"
#include "metrix/hykStatsCollector.h"
#include "metrix/mockupStatsCollector.h"
#include "plexa/fault.h"

#include <algorithm>
#include <cerrno>

namespace Metrix {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogError;
using Corvax::kLogNotice;
using Corvax::kLogWarning;
using Corvax::MakeRef;
using Corvax::Ref;
using InvalidArgument = Plexa::Fault::InvalidArgument::Exception;

constexpr char kConfigSection[] = "plugins/metrix";
const std::string kDefaultDepotDir = "/var/lib/quorra/agentd/stats/";
const std::string kDefaultDepotName = "hostAgentStats";
constexpr int32_t kDefaultMaxStatsPurged = 1000;

constexpr int32_t kDefaultCollectionInterval = 20;
constexpr char kRealTimeName[] = "RealTime";
constexpr int32_t kRealTimeSpanSec = 3600;

constexpr char kHistoricalName[] = "5min";
constexpr int32_t kHistoricalPeriod = 300;
constexpr int32_t kHistoricalSamples = 432;

constexpr TimeStamp kToleratedLeadSec = 60;

Ref<Corvax::ConfigSection> GetConfig()
{
   return Corvax::Service::GetApp()->GetConfigStore()->GetSection(kConfigSection);
}

} // namespace

int64_t FindIntervalBoundary(int64_t reference, int64_t time, int64_t interval)
{
   const int64_t offset = static_cast<int32_t>(reference % interval);
   const int64_t candidate = time - time % interval + offset;
   return candidate >= time ? candidate : candidate + interval;
}

PerformanceManagerImpl::PerformanceManagerImpl(const std::string& id, Corvax::Logger* logger)
   : AuthEntityBaseImpl(GetManagedType(), id), _logger(logger),
     _collectionInterval(kDefaultCollectionInterval)
{
   const Ref<Corvax::ConfigSection> config = GetConfig();
   config->Get("collectionInterval", _collectionInterval);
   if (_collectionInterval <= 0 || kHistoricalPeriod % _collectionInterval != 0) {
      _logger->Log(kLogWarning, "Invalid stats collection interval: %1", _collectionInterval);
      _collectionInterval = kDefaultCollectionInterval;
   }
   _logger->Log(kLogNotice, "Collection interval is %1 sec", _collectionInterval);
   LoadStatsDepot();
   _statsMetadata = MakeRef<StatsMetadata>();

   bool enableMockup = false;
   config->Get("enableMockup", enableMockup);
   if (enableMockup) {
      _statsCollector = MakeRef<MockupStatsCollector>(_logger.Get(), _statsMetadata.Get(),
                                                      _statsDepot.Get(), _collectionInterval);
   } else {
      bool wideFigures = false;
      config->Get("wideFigures", wideFigures);
      _statsCollector = MakeRef<HykStatsCollector>(
         _logger.Get(), _statsMetadata.Get(), _statsDepot.Get(), _collectionInterval, wideFigures);
   }
}

PerformanceManagerImpl::DepotOptions PerformanceManagerImpl::ReadDepotOptions()
{
   const Ref<Corvax::ConfigSection> config = GetConfig();
   DepotOptions options{kDefaultDepotDir, kDefaultDepotName, kDefaultMaxStatsPurged, {}};
   config->Get("depotDir", options.directory);
   config->Get("depotName", options.name);
   config->Get("maxStatsPurged", options.maxStatsPurged);
   config->Get("checkpointSec", options.journal.checkpointSec);
   config->Get("syncSec", options.journal.syncSec);
   options.journal.checkpointSec = std::max(options.journal.checkpointSec, 0);
   options.journal.syncSec = std::max(options.journal.syncSec, 0);
   return options;
}

void PerformanceManagerImpl::NewStatsDepot(const DepotOptions& options)
{
   GetStatsDepot(options.directory, options.name, _logger.Get(), options.maxStatsPurged,
                 _statsDepot, options.journal);
}

void PerformanceManagerImpl::LoadStatsDepot()
{
   const DepotOptions options = ReadDepotOptions();
   FinishSetAside(options.directory, options.name);
   const std::string reason = LoadExistingDepot(options);
   if (reason.empty()) {
      AddMissingInterval();
      return;
   }

   _logger->Log(kLogWarning, "Reverting to default stats configuration");
   _statsDepot = nullptr; // a depot locks its files as long as it lives
   const std::string place = SetDepotAside(options.directory, options.name);
   if (!place.empty()) {
      _logger->Log(kLogWarning, "The files of stats depot %1 are now in %2: %3", options.name,
                   place, reason);
   }
   NewStatsDepot(options);
   _statsDepot->Create();
   _statsDepot->AddInterval(kRealTimeName, _collectionInterval,
                            static_cast<unsigned>(kRealTimeSpanSec / _collectionInterval));
   AddMissingInterval();
}

/// Adds the historical interval to a depot that lacks it: a new one, or one left unfinished when
/// the process died. With a collection interval of 300 seconds the finest interval has its period
/// already.
void PerformanceManagerImpl::AddMissingInterval()
{
   Corvax::RefVector<StatsDepotInterval> intervals;
   _statsDepot->GetIntervals(intervals);
   if (intervals.size() == 1 && _collectionInterval != kHistoricalPeriod) {
      _statsDepot->AddInterval(kHistoricalName, kHistoricalPeriod, kHistoricalSamples);
   }
}

/// Returns why the depot must be replaced; empty if it can be used. Only what is in the files, or
/// that there are none, is such a reason: any other failure may pass, and the files are good.
std::string PerformanceManagerImpl::LoadExistingDepot(const DepotOptions& options)
{
   const auto report = [&](const Corvax::Exception& e) {
      _logger->Log(kLogError, "Unable to load stats depot %1 in directory %2 : %3", options.name,
                   options.directory, e.GetMessage());
      return e.GetMessage();
   };
   NewStatsDepot(options);
   try {
      _statsDepot->Load();
   } catch (const Corvax::FileFormatException& e) {
      return report(e);
   } catch (const Corvax::InvalidArgumentException& e) {
      return report(e);
   } catch (const Corvax::PlatformException& e) {
      if (e.GetErrorNumber() != ENOENT) {
         throw;
      }
      return report(e);
   }
   if (HasFutureTimeStamps()) {
      _logger->Log(kLogError,
                   "Stats Depot has future timestamps. Discarding old statistics information");
      return "it has time stamps in the future";
   }
   return HasConfiguredInterval() ? "" : "its collection interval is another one";
}

bool PerformanceManagerImpl::HasFutureTimeStamps() const
{
   const auto now = static_cast<TimeStamp>(Corvax::DateTime::Now().GetUtcMicroseconds() /
                                           Corvax::kMicrosecondsPerSecond);
   const TimeStamp latest = _statsDepot->GetLatestTimeStamp();
   return latest != kUnset && latest > now && latest - now > kToleratedLeadSec;
}

bool PerformanceManagerImpl::HasConfiguredInterval() const
{
   Corvax::RefVector<StatsDepotInterval> intervals;
   _statsDepot->GetIntervals(intervals);
   return !intervals.empty() && intervals.front()->samplingPeriod == _collectionInterval &&
          intervals.front()->name == kRealTimeName;
}

void PerformanceManagerImpl::StartStatsCollection()
{
   if (_statsCollector) {
      _statsCollector->Start();
   }
}

void PerformanceManagerImpl::StopStatsCollection()
{
   if (_statsCollector) {
      _statsCollector->Stop();
   }
   const Corvax::Locker lock(_statsDepot.Get());
   try {
      _statsDepot->Checkpoint();
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "The newest samples could not be written to the stats depot: %1",
                   e.GetMessage());
   }
}

std::string PerformanceManagerImpl::GetStorageTrouble()
{
   const Corvax::Locker lock(_statsDepot.Get());
   const std::string trouble = _statsDepot->GetTrouble();
   return trouble.empty() && _statsCollector ? _statsCollector->GetTrouble() : trouble;
}

/// Real time is tested first on purpose: with a collection interval of 300 seconds, 300 is real
/// time.
bool PerformanceManagerImpl::GetIntervalName(int32_t intervalId, std::string& name) const
{
   if (intervalId == _collectionInterval) {
      name = kRealTimeName;
      return true;
   }
   if (intervalId == kHistoricalPeriod) {
      name = kHistoricalName;
      return true;
   }
   return false;
}

void PerformanceManagerImpl::GetDescription(Ref<Quen::PerformanceDescription>& description)
{
   description = MakeRef<Quen::PerformanceDescription>();
}

void PerformanceManagerImpl::GetHistoricalInterval(
   Ref<Plexa::DataArray<Quen::HistoricalInterval>>& intervals)
{
   auto interval = MakeRef<Quen::HistoricalInterval>();
   interval->name = "5 minute stats";
   interval->samplingPeriod = kHistoricalPeriod;
   interval->length = kHistoricalPeriod * kHistoricalSamples;
   intervals = MakeRef<Plexa::DataArray<Quen::HistoricalInterval>>();
   intervals->Append(interval);
}

void PerformanceManagerImpl::GetPerfCounter(Ref<Plexa::DataArray<CounterInfo>>& counters)
{
   _logger->Log(kLogDebug, "PerfMgr: GetPerfCounter called");
   _statsMetadata->GetAllCounters(counters);
}

void PerformanceManagerImpl::QueryCounter(const std::vector<int32_t>& counterIds,
                                          Ref<Plexa::DataArray<CounterInfo>>& counters)
{
   const Corvax::Locker lock(_statsDepot.Get());
   _logger->Log(kLogDebug, "PerfMgr: QueryCounter called");
   auto found = MakeRef<Plexa::DataArray<CounterInfo>>();
   for (const int32_t counterId : counterIds) {
      CounterInfo* const info = _statsMetadata->GetCounterInfo(counterId);
      if (info == nullptr) {
         throw InvalidArgument("counterId", Corvax::Format("there is no counter %1", counterId));
      }
      found->Append(info);
   }
   counters = found;
}

void PerformanceManagerImpl::QueryProviderSummary(Plexa::MoRef* entity,
                                                  Ref<ProviderSummary>& summary)
{
   ValidateEntityType(entity);
   summary = MakeRef<ProviderSummary>();
   summary->entity = entity;
   summary->summarySupported = true;
   summary->currentSupported = true;
   summary->refreshRate = _collectionInterval;
}

// The intervals are fixed.

void PerformanceManagerImpl::CreateHistoricalInterval(Quen::HistoricalInterval* /*interval*/)
{
   throw Plexa::Fault::NotImplemented::Exception();
}

void PerformanceManagerImpl::RemoveHistoricalInterval(int32_t /*intervalId*/)
{
   throw Plexa::Fault::NotImplemented::Exception();
}

void PerformanceManagerImpl::UpdateHistoricalInterval(Quen::HistoricalInterval* /*interval*/)
{
   throw Plexa::Fault::NotImplemented::Exception();
}

void PerformanceManagerImpl::QueryCompositeStats(QuerySpec* /*querySpec*/,
                                                 Ref<CompositeEntityMetric>& /*result*/)
{
   throw Plexa::Fault::NotImplemented::Exception();
}

void PerformanceManagerImpl::SummarizeStats()
{
   throw Plexa::Fault::NotImplemented::Exception();
}

/// The sample in the newest column of the finest interval, which is the same for all stats; -1 if
/// the stat has none there. The caller holds the depot's lock.
PerformanceManagerImpl::Long PerformanceManagerImpl::GetLatestSample(
   const std::string& entityId, StatsMetadata::CounterId counterId, const std::string& instance)
{
   std::string statName;
   if (!_statsMetadata->GetStatName(counterId, instance, statName)) {
      throw InvalidArgument();
   }
   const TimeStamp ts = _statsDepot->GetLatestTimeStamp();
   return static_cast<Long>(
      _statsDepot->GetSample(entityId, statName, ts, "", StatsDepot::ROLLUP_NONE));
}

void PerformanceManagerImpl::GetHostCpuMemUsage(Long& cpuUsageMhz, Long& memConsumedKB)
{
   const Corvax::Locker lock(_statsDepot.Get());
   const std::string& instance = StatsMetadata::AggregateInstanceId;
   cpuUsageMhz = GetLatestSample(AgentdCommon::moid_hostsystem, kCpuUsageMhz, instance);
   memConsumedKB = GetLatestSample(AgentdCommon::moid_hostsystem, kMemConsumed, instance);
}

void PerformanceManagerImpl::GetVmCpuMemUsage(Plexa::MoRef* vm, Long& cpuUsageMhz,
                                              Long& memConsumedKB, Long& memActiveKB)
{
   if (vm == nullptr) {
      throw InvalidArgument("vm", "is missing");
   }
   const Corvax::Locker lock(_statsDepot.Get());
   const std::string& entity = vm->GetId();
   const std::string& instance = StatsMetadata::AggregateInstanceId;
   cpuUsageMhz = GetLatestSample(entity, kCpuUsageMhz, instance);
   const Long consumedKb = GetLatestSample(entity, kMemConsumed, instance);
   const Long overheadKb = GetLatestSample(entity, kMemOverhead, instance);
   // Report nothing unless both parts are known.
   memConsumedKB = -1;
   if (consumedKb > 0 && overheadKb > 0) {
      const bool fits = consumedKb <= INT64_MAX - overheadKb;
      memConsumedKB = fits ? consumedKb + overheadKb : INT64_MAX;
   }
   memActiveKB = GetLatestSample(entity, kMemActive, instance);
}

} // namespace Metrix
