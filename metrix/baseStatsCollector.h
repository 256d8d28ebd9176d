#pragma once

#include "corvax/lockable.h"
#include "corvax/scheduler.h"
#include "metrix/clockWatch.h"
#include "metrix/statsDepot.h"
#include "metrix/statsMetadata.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Metrix {

/// A collector as the performance manager drives it.
class StatsCollector : public virtual Corvax::Object {
public:
   virtual void Start() = 0;
   virtual void Stop() = 0;
   virtual void SetCollectionInterval(int seconds) = 0;
   /// Why samples of the newest run were lost, for a person; empty if none were. The caller holds
   /// the depot's lock.
   virtual std::string GetTrouble() const = 0;
};

/// One buffered sample.
struct SampleRecord {
   std::string entityId;
   std::string statName;
   TimeStamp ts; ///< seconds
   StatVal sample;
   StatVal maxVal; ///< upper bound, 0 for none
};

/// Base of all collectors: schedules runs at wall-clock multiples of the interval, buffers the
/// samples of a run and writes them to the depot at its end. A stat is created with its first
/// sample.
///
/// Runs never overlap: a run schedules its successor when it ends, however it ends, for the next
/// boundary. Boundaries that it overran are skipped, and so is one that the clock reaches a second
/// time or leaps to (see ClockWatch).
///
/// Locking: Start, Stop, SetCollectionInterval and every run hold the collector's lock throughout.
/// Lock order: the collector's, then the depot's.
class BaseStatsCollector : public StatsCollector, public virtual Corvax::LockableObjectImpl {
public:
   /// `collectionInterval` is in seconds. Schedules nothing.
   BaseStatsCollector(Corvax::Logger* logger, StatsMetadata* metadata, StatsDepot* depot,
                      int collectionInterval);

   /// Calls StartInt and schedules the first run on the calling thread's timer facility. If a run
   /// is pending already, it is kept.
   void Start() override;
   /// Cancels the pending run and calls StopInt. A run in progress schedules no successor.
   void Stop() override;
   /// Takes effect when the next run is scheduled. InvalidArgumentException for less than 1.
   void SetCollectionInterval(int seconds) override;
   std::string GetTrouble() const override { return _trouble; }

   /// One collection run, called when it is due. A failure is logged and ends that run only.
   void CollectStatsWorker();

   /// Adds the CPU time of a run that ended at `nowUs` to the total of all collectors. Returns the
   /// share of one CPU, in percent, that runs have used since the first Start; 0 if no time has
   /// passed. The caller holds the collector's lock.
   static double UpdateCpuTime(int64_t processTimeUs, int64_t nowUs);

   /// Microseconds from `nowUs` to the next boundary. Always positive: a full interval if `nowUs`
   /// is on a boundary.
   static int64_t GetDelayToNextRun(int64_t nowUs, int intervalSec);

protected:
   ~BaseStatsCollector() override;

   /// Passes the samples of one run to AddSample; `timeStamp` is in seconds.
   virtual void CollectStats(int64_t timeStamp) = 0;
   /// Attach and detach the listeners and handles of the source. Called with the lock held.
   virtual void StartInt() = 0;
   virtual void StopInt() = 0;

   /// Buffers one sample. An unknown counter leaves the stat name empty, and the flush fails there.
   void AddSample(const std::string& entityId, int counterId, TimeStamp ts, StatVal sample,
                  const std::string& instance, StatVal maxVal);

   /// Writes the buffered samples under the depot's lock and empties the buffer. A sample that the
   /// depot cannot take is lost, and each cause is logged once; a failed assertion ends the flush
   /// with the samples before it.
   void FlushStats();

   const Corvax::Ref<Corvax::Logger> _logger;
   const Corvax::Ref<StatsDepot> _statsDepot;
   Corvax::Ref<Corvax::ScheduledItem> _scheduledStatsCollection; ///< null while stopped
   bool _stopCollection = false;
   int32_t _collectionInterval; ///< seconds
   const Corvax::Ref<StatsMetadata> _statsMetadata;
   std::vector<SampleRecord> _collectedSamples; ///< of the current run, in order

private:
   void ScheduleNextRun();
   bool IsRunDue(const ClockWatch::Moment& now);
   void LogDelay(ClockWatch::Verdict verdict);
   void GiveUpColumnsFrom(int64_t boundarySec);
   void Collect(int64_t startUs);
   void AddMissingRollups();
   void WriteSamples(const std::vector<SampleRecord>& samples);
   void WriteSample(const SampleRecord& record);

   ClockWatch _clockWatch;
   bool _knowsNewest = false; ///< until the first run after Start
   ClockWatch::Verdict _lastVerdict = ClockWatch::Verdict::RUN;
   bool _checksRollups = false; ///< from Start until a flush has done it
   std::string _trouble;        ///< guarded by the depot's lock

   // Shared by all collectors and kept across Stop and Start; in microseconds.
   static TimeStamp _startTime;
   static TimeStamp _endTime;
   static int64_t _processTime; ///< CPU time of all runs
};

} // namespace Metrix
