#pragma once

#include "corvax/lockable.h"
#include "corvax/scheduler.h"
#include "metrix/statsDepot.h"
#include "metrix/statsMetadata.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Metrix {

/// What the performance manager drives of a collector.
class StatsCollector : public virtual Corvax::Object {
public:
   virtual void Start() = 0;
   virtual void Stop() = 0;
   virtual void SetCollectionInterval(int seconds) = 0;
};

/// One buffered sample.
struct SampleRecord {
   std::string entityId;
   std::string statName;
   TimeStamp ts; ///< seconds
   StatVal sample;
   StatVal maxVal; ///< upper bound, 0 for none
};

/// The part common to all collectors: runs on wall-clock multiples of the interval, buffers the
/// samples of a run and writes them into the depot at its end, creating stats on first sight.
///
/// Runs never overlap: the next one is scheduled when one has ended, for the next boundary ahead,
/// and boundaries that have passed meanwhile are skipped.
/// Locking: every operation and every run holds the collector's lock for its whole duration. Lock
/// order: the collector's, then the depot's.
class BaseStatsCollector : public StatsCollector, public virtual Corvax::LockableObjectImpl {
public:
   /// `collectionInterval` in seconds. Nothing is scheduled.
   BaseStatsCollector(Corvax::Logger* logger, StatsMetadata* metadata, StatsDepot* depot,
                      int collectionInterval);

   /// Schedules the first run on the calling thread's timer facility. A collector that is started
   /// already only restarts its source.
   void Start() override;
   /// A run under way ends; no further one is scheduled.
   void Stop() override;
   /// Takes effect when the next run is scheduled. "Invalid argument" below 1.
   void SetCollectionInterval(int seconds) override;

   /// One collection run; what the schedule calls.
   void CollectStatsWorker();

   /// Adds a run's CPU time to the process's account, both in microseconds, and returns the share
   /// of one CPU, in percent, that all runs have taken since the first start; 0 while no time has
   /// passed. Called under the collector's lock.
   static double UpdateCpuTime(int64_t processTimeUs, int64_t nowUs);

   /// Microseconds from `nowUs` to the next wall-clock multiple of the interval: more than none, so
   /// a full interval from one that is just now.
   static int64_t GetDelayToNextRun(int64_t nowUs, int intervalSec);

protected:
   ~BaseStatsCollector() override;

   /// Takes the samples of one run by AddSample; the time stamp is in seconds.
   virtual void CollectStats(int64_t timeStamp) = 0;
   /// Attach and detach what the source needs; called under the collector's lock.
   virtual void StartInt() = 0;
   virtual void StopInt() = 0;

   /// Buffers one sample. An unknown counter gives an empty stat name, which fails the flush.
   void AddSample(const std::string& entityId, int counterId, TimeStamp ts, StatVal sample,
                  const std::string& instance, StatVal maxVal);

   /// Writes the buffered samples, under one hold of the depot's lock. A runtime exception ends it
   /// at that sample and is logged; the rest is dropped.
   void FlushStats();

   const Corvax::Ref<Corvax::Logger> _logger;
   const Corvax::Ref<StatsDepot> _statsDepot;
   Corvax::Ref<Corvax::ScheduledItem> _scheduledStatsCollection; ///< null when none is pending
   bool _stopCollection = false;
   int32_t _collectionInterval; ///< seconds
   const Corvax::Ref<StatsMetadata> _statsMetadata;
   std::vector<SampleRecord> _collectedSamples; ///< of the current run, in order

private:
   void ScheduleNextRun();
   void WriteSample(const SampleRecord& record);

   // The account of the process's collection runs, kept across stops and starts.
   static TimeStamp _startTime; ///< microseconds
   static TimeStamp _endTime;
   static int64_t _processTime;
};

} // namespace Metrix
