#include "metrix/baseStatsCollector.h"

#include "corvax/dateTime.h"
#include "corvax/exception.h"
#include "corvax/functor.h"
#include "corvax/system.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Metrix {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogError;
using Corvax::kLogNotice;
using Corvax::kLogWarning;
using Corvax::kMicrosecondsPerSecond;
using Corvax::System;

int64_t GetProcessTimeUs()
{
   int64_t userUs = 0;
   int64_t systemUs = 0;
   System::GetCpuTime(userUs, systemUs);
   return userUs + systemUs;
}

/// Performs one part of a run; a failure is logged and ends that part.
template <class Action>
void TryPart(Corvax::Logger& logger, const Action& action)
{
   constexpr char kFailed[] = "A collection failed: %1";
   try {
      try {
         action();
      } catch (const Corvax::Exception& e) { // out of memory is not caught as std::exception
         logger.Log(kLogError, kFailed, e.GetMessage());
      } catch (const std::exception& e) {
         logger.Log(kLogError, kFailed, e.what());
      } catch (...) {
         logger.Log(kLogError, kFailed, "unknown exception");
      }
   } catch (const std::bad_alloc&) {
      // The next run matters more than the line in the log.
   }
}

/// The failures of one flush: each cause is logged once.
class FlushFailures {
public:
   explicit FlushFailures(Corvax::Logger& logger) : _logger(logger) {}

   void Add(const Corvax::Exception& e)
   {
      try {
         // Messages of the platform differ by offset, so its error number is the cause.
         const auto* const platform = dynamic_cast<const Corvax::PlatformException*>(&e);
         std::string cause = platform ? std::to_string(platform->GetErrorNumber()) : e.GetMessage();
         if (std::ranges::find(_causes, cause) == _causes.end()) {
            _logger.Log(kLogError, "Failed to add sample to statsDepot : %1", e.GetMessage());
            _first = _causes.empty() ? e.GetMessage() : _first;
            _causes.push_back(std::move(cause));
         }
      } catch (const std::bad_alloc&) {
         // The next sample matters more than the line in the log.
      }
   }
   /// The message of the first failure, empty if there was none.
   const std::string& GetFirst() const { return _first; }

private:
   Corvax::Logger& _logger;
   std::vector<std::string> _causes;
   std::string _first;
};

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
   _knowsNewest = false;
   _checksRollups = true;
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
   TryPart(*_logger, [this] {
      const ClockWatch::Moment now{System::GetTime(), System::GetMonotonicTime()};
      if (IsRunDue(now)) {
         Collect(now.wallUs);
      }
   });
   if (!_stopCollection) {
      ScheduleNextRun();
   }
}

bool BaseStatsCollector::IsRunDue(const ClockWatch::Moment& now)
{
   using Verdict = ClockWatch::Verdict;
   if (!_knowsNewest) {
      const Corvax::Locker depotLock(_statsDepot.Get());
      const TimeStamp newest = _statsDepot->GetLatestTimeStamp();
      _clockWatch.Start(newest == kUnset ? std::nullopt
                                         : std::optional(static_cast<int64_t>(newest)));
      _knowsNewest = true;
   }
   const Verdict verdict = _clockWatch.Judge(now, _collectionInterval);
   const bool isNew = verdict != std::exchange(_lastVerdict, verdict);
   if (verdict == Verdict::WAIT || verdict == Verdict::HOLD) {
      if (isNew) {
         LogDelay(verdict);
      }
      return false;
   }
   if (verdict == Verdict::GIVE_UP) {
      GiveUpColumnsFrom(ClockWatch::GetBoundary(now, _collectionInterval));
   }
   _clockWatch.Accept(now, _collectionInterval);
   return true;
}

void BaseStatsCollector::LogDelay(ClockWatch::Verdict verdict)
{
   if (verdict == ClockWatch::Verdict::HOLD) {
      _logger->Log(kLogWarning,
                   "The clock leapt ahead to %1; collection continues when it has stayed there for "
                   "an interval",
                   Corvax::DateTime::Now().ToString());
      return;
   }
   const auto newest = Corvax::DateTime::FromSeconds(_clockWatch.GetNewest().value_or(0));
   _logger->Log(kLogNotice,
                "The clock was set back; collection continues when it has passed the newest "
                "samples, which are of %1",
                newest.ToString());
}

void BaseStatsCollector::GiveUpColumnsFrom(int64_t boundarySec)
{
   const Corvax::Locker depotLock(_statsDepot.Get());
   const auto last = static_cast<TimeStamp>(std::max<int64_t>(boundarySec - 1, 0));
   const int columns = _statsDepot->GiveUpColumnsAfter(last);
   _logger->Log(kLogWarning, "The clock was set back to %1; %2 columns ahead of it are given up",
                Corvax::DateTime::Now().ToString(), columns);
}

void BaseStatsCollector::Collect(int64_t startUs)
{
   const int64_t ts = startUs / kMicrosecondsPerSecond;
   _logger->Log(kLogDebug, "Collection Time %1", ts);
   const int64_t processStartUs = GetProcessTimeUs();

   _collectedSamples.clear();
   TryPart(*_logger, [this, ts] { CollectStats(ts); });
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
   AddMissingRollups();
   WriteSamples(samples);
   samples.clear();
   samples.swap(_collectedSamples); // keeps the capacity for the next run
}

/// Once after a start: the depot may be from a program whose catalogue had fewer rollups.
void BaseStatsCollector::AddMissingRollups()
{
   if (!_checksRollups) {
      return;
   }
   try {
      _statsDepot->AddMissingRollups(
         [this](const std::string& statName, std::vector<StatsDepot::RollupType>& rollups) {
            const auto* const data = _statsMetadata->GetStatsDepotData(statName);
            if (data != nullptr) {
               rollups = data->GetRollups();
            }
            return data != nullptr;
         });
      _checksRollups = false;
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "Rollups that stats lack cannot be added yet: %1", e.GetMessage());
   }
}

void BaseStatsCollector::WriteSamples(const std::vector<SampleRecord>& samples)
{
   FlushFailures failures(*_logger);
   size_t lost = 0;
   for (size_t i = 0; i < samples.size(); ++i) {
      try {
         WriteSample(samples[i]);
      } catch (const Corvax::AssertionException& e) {
         failures.Add(e);
         lost += samples.size() - i;
         break;
      } catch (const Corvax::Exception& e) {
         failures.Add(e);
         ++lost;
      }
   }
   try {
      _statsDepot->Flush();
   } catch (const Corvax::Exception& e) {
      failures.Add(e);
   }
   _trouble = failures.GetFirst();
   if (lost > 0) {
      const std::string count = Corvax::Format("%1 of the %2 samples of the newest collection are "
                                               "lost",
                                               lost, samples.size());
      _logger->Log(kLogError, "%1", count);
      _trouble = count + ": " + _trouble;
   }
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
