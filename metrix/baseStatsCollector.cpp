#include "metrix/baseStatsCollector.h"

#include "corvax/exception.h"
#include "corvax/functor.h"
#include "corvax/system.h"

namespace Metrix {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogError;
using Corvax::kMicrosecondsPerSecond;
using Corvax::System;

int64_t GetProcessTimeUs()
{
   int64_t userUs = 0;
   int64_t systemUs = 0;
   System::GetCpuTime(userUs, systemUs);
   return userUs + systemUs;
}

} // namespace

TimeStamp BaseStatsCollector::_startTime = 0;
TimeStamp BaseStatsCollector::_endTime = 0;
int64_t BaseStatsCollector::_processTime = 0;

BaseStatsCollector::BaseStatsCollector(Corvax::Logger* logger, StatsMetadata* metadata,
                                       StatsDepot* depot, int collectionInterval)
   : _logger(logger), _statsDepot(depot), _collectionInterval(collectionInterval),
     _statsMetadata(metadata)
{
}

BaseStatsCollector::~BaseStatsCollector() = default;

void BaseStatsCollector::Start()
{
   const Corvax::Locker lock(this);
   _stopCollection = false;
   StartInt();
   ScheduleNextRun();
   UpdateCpuTime(0, System::GetTime());
}

void BaseStatsCollector::Stop()
{
   const Corvax::Locker lock(this);
   _stopCollection = true;
   if (_scheduledStatsCollection) {
      _scheduledStatsCollection->Cancel();
      _scheduledStatsCollection = nullptr;
   }
   StopInt();
}

void BaseStatsCollector::SetCollectionInterval(int seconds)
{
   if (seconds < 1) {
      throw Corvax::InvalidArgumentException();
   }
   const Corvax::Locker lock(this);
   _collectionInterval = seconds;
}

int64_t BaseStatsCollector::GetDelayToNextRun(int64_t nowUs, int intervalSec)
{
   // To the boundary itself, not to somewhere within its second: otherwise each run would start
   // later by the duration of the one before.
   const int64_t delaySec = intervalSec - nowUs / kMicrosecondsPerSecond % intervalSec;
   return delaySec * kMicrosecondsPerSecond - nowUs % kMicrosecondsPerSecond;
}

/// Keeps a pending run: if a run waits for the lock while the collector is stopped and started
/// again, the new start has scheduled its successor already.
void BaseStatsCollector::ScheduleNextRun()
{
   if (_scheduledStatsCollection && _scheduledStatsCollection->IsPending()) {
      return;
   }
   const int64_t delayUs = GetDelayToNextRun(System::GetTime(), _collectionInterval);
   _scheduledStatsCollection = System::GetThisThread().ScheduleOnce(
      Corvax::MakeFunctor(this, &BaseStatsCollector::CollectStatsWorker), delayUs);
}

void BaseStatsCollector::CollectStatsWorker()
{
   const Corvax::Locker lock(this);
   const int64_t startUs = System::GetTime();
   const int64_t ts = startUs / kMicrosecondsPerSecond;
   _logger->Log(kLogDebug, "Collection Time %1", ts);
   const int64_t processStartUs = GetProcessTimeUs();

   _collectedSamples.clear();
   CollectStats(ts);
   FlushStats();

   const int64_t endUs = System::GetTime();
   const int64_t processTimeUs = GetProcessTimeUs() - processStartUs;
   const int64_t elapsedUs = endUs - startUs;
   const double usage =
      elapsedUs > 0 ? static_cast<double>(processTimeUs) * 100.0 / static_cast<double>(elapsedUs)
                    : 0.0;
   _logger->Log(kLogDebug, "Time taken for stats collection : %1 (microsec)", elapsedUs);
   _logger->Log(kLogDebug, "Process time : %1 Usage : %2", processTimeUs, usage);
   _logger->Log(kLogDebug, "Cumulative Usage : %1", UpdateCpuTime(processTimeUs, endUs));
   if (!_stopCollection) {
      ScheduleNextRun();
   }
}

void BaseStatsCollector::AddSample(const std::string& entityId, int counterId, TimeStamp ts,
                                   StatVal sample, const std::string& instance, StatVal maxVal)
{
   std::string statName;
   _statsMetadata->GetStatName(counterId, instance, statName);
   _collectedSamples.push_back({entityId, std::move(statName), ts, sample, maxVal});
}

void BaseStatsCollector::FlushStats()
{
   const Corvax::Locker depotLock(_statsDepot.Get());
   std::vector<SampleRecord> samples;
   samples.swap(_collectedSamples); // empties the buffer even if an exception leaves
   try {
      for (const SampleRecord& record : samples) {
         WriteSample(record);
      }
      _statsDepot->Flush();
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "Failed to add sample to statsDepot : %1", e.GetMessage());
   }
   samples.clear();
   samples.swap(_collectedSamples); // keeps the capacity for the next run
}

void BaseStatsCollector::WriteSample(const SampleRecord& record)
{
   if (_statsDepot->AddSample(record.entityId, record.statName, record.ts, record.sample,
                              record.maxVal)) {
      return;
   }
   const StatsMetadata::StatsDepotData* const data =
      _statsMetadata->GetStatsDepotData(record.statName);
   Corvax::Assert(data != nullptr, "the catalogue knows the sample's stat");
   _statsDepot->CreateStat(record.entityId, record.statName, data->GetStatType(), 1,
                           data->GetRollups());
   _statsDepot->AddSample(record.entityId, record.statName, record.ts, record.sample,
                          record.maxVal);
}

double BaseStatsCollector::UpdateCpuTime(int64_t processTimeUs, int64_t nowUs)
{
   if (processTimeUs == 0 && _startTime == 0) {
      _startTime = static_cast<TimeStamp>(nowUs);
   }
   _processTime += processTimeUs;
   _endTime = static_cast<TimeStamp>(nowUs);
   const int64_t elapsedUs = nowUs - static_cast<int64_t>(_startTime);
   if (elapsedUs <= 0) {
      return 0.0;
   }
   return static_cast<double>(static_cast<long double>(_processTime) * 100 /
                              static_cast<long double>(elapsedUs));
}

} // namespace Metrix
