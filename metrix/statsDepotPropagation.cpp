#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::kLogError;
using Corvax::kLogInfo;
using Corvax::kLogNotice;

} // namespace

void StatsDepotImpl::PropagateStats(TimeStamp ts)
{
   // Finest first, so that each interval is filled before it feeds the next.
   for (int i = 1; i < _intervalTable->GetNumIntervals(); ++i) {
      Interval* const coarse = _intervalTable->GetIntervalAt(i);
      const TimeStamp latest = coarse->GetStore().GetLatestTimeStamp();
      // A difference, because latest + period wraps if a damaged file has a huge stamp.
      if (latest == kUnset || (latest < ts && ts - latest > coarse->GetPeriod())) {
         PropagateStats(coarse, i, ts);
      }
   }
}

void StatsDepotImpl::PropagateStats(Interval* coarse, int coarseIndex, TimeStamp ts)
{
   const Interval* const fine = _intervalTable->GetIntervalAt(coarseIndex - 1);
   _logger->Log(kLogInfo, "Propagating stats from interval %1 to %2", fine->_samplingPeriod,
                coarse->_samplingPeriod);
   const Periods periods = FindDuePeriods(*coarse, *fine, ts);
   // To the map's end, because a search for the last used slot may start below it.
   const int last = _slotUsageMap->GetSize() - 1;
   // Stat by stat, not period by period: the stores read and write rows in ranges only for a walk
   // in the order of ids.
   Failures failures;
   for (int id = 0; id <= last; ++id) {
      if (!_slotUsageMap->IsSlotUsed(id)) {
         continue;
      }
      try {
         PropagateStat(static_cast<StatId>(id), *coarse, *fine, periods);
      } catch (const Corvax::PlatformException& e) {
         failures.Add(e);
         _lateRollups.push_back({coarseIndex, static_cast<StatId>(id), periods});
         _lateRollupsTs = ts;
      }
   }
   if (failures.count > 0) {
      _logger->Log(kLogError, "%1 stats are rolled up later into interval %2: %3", failures.count,
                   coarse->_samplingPeriod, failures.first);
   }
}

void StatsDepotImpl::Failures::Add(const Corvax::Exception& e)
{
   first = count++ == 0 ? e.GetMessage() : first;
}

/// Tries again what failed in an earlier run, as long as the coarse store has its columns.
void StatsDepotImpl::PropagateLate(TimeStamp ts)
{
   Failures failures;
   std::vector<LateRollup> late;
   late.swap(_lateRollups);
   _lateRollupsTs = ts;
   for (const LateRollup& each : late) {
      const Interval& coarse = *_intervalTable->GetIntervalAt(each.coarse);
      const Interval& fine = *_intervalTable->GetIntervalAt(each.coarse - 1);
      if (coarse.GetStore().GetEarliestTimeStamp() > each.periods.begin) {
         continue; // the ring has wrapped
      }
      try {
         PropagateStat(each.id, coarse, fine, each.periods);
      } catch (const Corvax::PlatformException& e) {
         failures.Add(e);
         _lateRollups.push_back(each);
      } catch (const Corvax::InvalidArgumentException&) {
         continue; // its periods have no columns
      }
   }
   if (failures.count > 0) {
      _logger->Log(kLogError, "%1 stats are still not rolled up: %2", failures.count,
                   failures.first);
   }
}

/// The periods that ended before `ts` and that the coarse store does not have yet.
StatsDepotImpl::Periods StatsDepotImpl::FindDuePeriods(const Interval& coarse, const Interval& fine,
                                                       TimeStamp ts)
{
   const uint64_t coarsePeriod = coarse.GetPeriod();
   const uint64_t finePeriod = fine.GetPeriod();
   Periods due{0, 0, coarsePeriod, 0};
   const TimeStamp latest = coarse.GetStore().GetLatestTimeStamp();
   if (latest == kUnset) {
      // The first period holds the oldest fine sample and ends at a multiple of the coarse period,
      // as all later ones do; so it may be short.
      const TimeStamp oldest = fine.GetStore().GetEarliestTimeStamp();
      due.begin = oldest == kUnset ? 0 : oldest;
      due.end = due.begin + coarsePeriod - finePeriod;
      due.end -= due.end % coarsePeriod;
   } else {
      due.begin = latest + finePeriod;
      due.end = latest + coarsePeriod;
   }
   // After a pause longer than the coarse interval's history, older periods would be overwritten
   // at once. Skipping whole periods keeps the ends where they belong.
   const uint64_t passed = (ts - due.begin) / coarsePeriod;
   if (passed > coarse._numSamples) {
      const uint64_t correction = coarsePeriod * (passed - coarse._numSamples);
      _logger->Log(kLogNotice, "Applying correction %1 during propagation", correction);
      due.begin += correction;
      due.end += correction;
   }
   // A period that ends at `ts` is not due: its last column may still get samples of other stats.
   due.count = due.end < ts ? (ts - 1 - due.end) / coarsePeriod + 1 : 0;
   if (due.count > coarse._numSamples) {
      // One period more than there are columns can remain, because `passed` counts from the first
      // one's begin. The first stat would take its column away again before the second gets there.
      const uint64_t excess = due.count - coarse._numSamples;
      due.begin += excess * coarsePeriod;
      due.end += excess * coarsePeriod;
      due.count -= excess;
   }
   return due;
}

void StatsDepotImpl::PropagateStat(StatId id, const Interval& coarse, const Interval& fine,
                                   const Periods& periods)
{
   const bool finestSource = &fine == _intervalTable->GetIntervalAt(0);
   StatsStore& store = coarse.GetStore();
   Corvax::Ref<StatInfo> info;
   const bool isKnown = GetStatInfo(id, info);
   // Only raw series are in the finest store. Id 0 adds the columns, whatever it is.
   if (finestSource && isKnown && info->_rawId != id && id != 0) {
      return;
   }
   for (uint64_t i = 0; i < periods.count; ++i) {
      const TimeStamp begin = periods.begin + i * periods.step;
      const TimeStamp end = periods.end + i * periods.step;
      const int validCount = fine.GetStore().GetSamples(id, begin, end, _samples, nullptr);
      if (validCount < 1) {
         // For stat 0 alone, so that the coarse store gets its column even if no stat has data:
         // otherwise this period would be due again and again.
         if (id == 0) {
            AddCoarseSample(store, periods, id, end, kUnset);
         }
         continue;
      }
      if (!isKnown) {
         _logger->Log(kLogError, "No statInfo for %1 #validSamples = %2", id, validCount);
         return;
      }
      const RollupType rollup = info->GetRollupType(id);
      if (rollup != ROLLUP_NONE || !finestSource) {
         // Only raw series are in the finest store, so this source is a coarse one, in which each
         // rollup series feeds itself.
         AddCoarseSample(store, periods, id, end,
                         _rollupFunctions[static_cast<size_t>(rollup)](_samples));
         continue;
      }
      for (size_t k = 0; k < info->_statIds.size(); ++k) {
         const auto target = static_cast<size_t>(info->_rollupTypes[k]);
         if (info->_rollupTypes[k] != ROLLUP_NONE) {
            AddCoarseSample(store, periods, info->_statIds[k], end,
                            _rollupFunctions[target](_samples));
         }
      }
   }
}

/// Adds a sample to the due period that ends at `end`. Earlier due periods that no stat has filled
/// get their columns first: a later stat may have samples there, and a column cannot be inserted
/// before another.
void StatsDepotImpl::AddCoarseSample(StatsStore& store, const Periods& periods, StatId id,
                                     TimeStamp end, StatVal value)
{
   const TimeStamp latest = store.GetLatestTimeStamp();
   const bool noneYet = latest == kUnset || latest < periods.end;
   for (TimeStamp ts = noneYet ? periods.end : latest + periods.step; ts < end;
        ts += periods.step) {
      MakeRoomFor(store, ts);
      store.AddSample(id, ts, kUnset);
   }
   MakeRoomFor(store, end);
   store.AddSample(id, end, value);
}

} // namespace Metrix
