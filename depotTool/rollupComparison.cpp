#include "depotTool/rollupComparison.h"

#include "corvax/format.h"

#include <algorithm>
#include <optional>

namespace DepotTool {

namespace {

using Corvax::Format;
using Metrix::kUnset;

/// A coarse column with the fine columns that it summarises.
struct Period {
   size_t coarse; ///< index of the coarse column
   size_t first;  ///< index of the first fine column
   size_t end;    ///< index after the last
};

/// The coarse columns whose fine columns are all there. Others are not judged: the ring has reused
/// some, or they were lost after the rollup was made.
std::vector<Period> FindPeriods(const IntervalImage& coarse, const IntervalImage& fine)
{
   std::vector<Period> periods;
   const std::vector<Column>& fineColumns = fine.store->GetColumns();
   const std::vector<Column>& coarseColumns = coarse.store->GetColumns();
   const auto wholeCount = static_cast<size_t>(coarse.periodSec / fine.periodSec);
   for (size_t i = 0; i < coarseColumns.size(); ++i) {
      const TimeStamp end = coarseColumns[i].stamp;
      const auto after = std::ranges::upper_bound(fineColumns, end, {}, &Column::stamp);
      const auto count = static_cast<size_t>(after - fineColumns.begin());
      const TimeStamp span = static_cast<uint64_t>(coarse.periodSec - fine.periodSec);
      if (count >= wholeCount && fineColumns[count - wholeCount].stamp + span == end) {
         periods.push_back({i, count - wholeCount, count});
      }
   }
   return periods;
}

/// The comparison of one coarse interval with the fine one that feeds it.
class Comparison {
public:
   Comparison(const Mending& mending, const IntervalImage& coarse, const IntervalImage& fine,
              bool recompute)
      : _mending(mending), _coarse(coarse), _fine(fine), _recompute(recompute),
        _periods(FindPeriods(coarse, fine))
   {
   }

   /// `sourceId` is the fine series that feeds this one.
   void Compare(const Stat& stat, const Series& series, StatId sourceId)
   {
      if (_periods.empty() || !_fine.store->GetSeries(sourceId, _fineValues)) {
         return;
      }
      const bool hasSamples = _coarse.store->GetSeries(series.id, _coarseValues);
      const auto begin = std::ranges::find_if(_coarseValues, [](StatVal v) { return v != kUnset; });
      // Before its first sample the series may not have existed.
      const auto beginColumn =
         hasSamples ? static_cast<size_t>(begin - _coarseValues.begin()) : size_t{0};
      std::string first;
      size_t differing = 0;
      for (const Period& period : _periods) {
         StatVal& stored = _coarseValues[period.coarse];
         const auto right =
            period.coarse < beginColumn ? std::nullopt : FindRight(period, series.rollup, stored);
         if (right) {
            first = differing++ > 0 ? first : Describe(period, stored, *right);
            stored = *right;
         }
      }
      if (differing > 0) {
         Report(stat, series, differing, first);
      }
   }

private:
   /// The sample that should be there; none if the stored one is right or cannot be judged.
   std::optional<StatVal> FindRight(const Period& period, int32_t rollup, StatVal stored)
   {
      const auto begin = _fineValues.begin();
      _samples.assign(begin + static_cast<ptrdiff_t>(period.first),
                      begin + static_cast<ptrdiff_t>(period.end));
      const auto function = kRollups[static_cast<size_t>(rollup)].function;
      const StatVal right = function(_samples);
      if (right == kUnset || right == stored) {
         return std::nullopt;
      }
      // A run that starts a little late fills the period before it adds its own samples to the
      // period's last column.
      _samples.pop_back();
      return function(_samples) == stored ? std::nullopt : std::optional(right);
   }

   std::string Describe(const Period& period, StatVal stored, StatVal right) const
   {
      return Format("%1 instead of %2 at %3", stored == kUnset ? "none" : Format("%1", stored),
                    right, _coarse.store->GetColumns()[period.coarse].stamp);
   }

   void Report(const Stat& stat, const Series& series, size_t differing, const std::string& first)
   {
      _mending.AddFault(
         "rollup.value", _mending.files.GetStore(_coarse.periodSec),
         Format("row %1, offset %2", series.id, _coarse.store->GetRowPos(series.id)),
         Format("%1 of %2 is not the rollup of interval %3: %4; samples that differ: %5",
                kRollups[static_cast<size_t>(series.rollup)].name, stat.GetName(), _fine.name,
                first, differing),
         _recompute ? "they are computed again" : "repair with --recompute-rollups", _recompute);
      if (_recompute) {
         _coarse.store->SetSeries(series.id, _coarseValues);
      }
   }

   const Mending& _mending;
   const IntervalImage& _coarse;
   const IntervalImage& _fine;
   const bool _recompute;
   const std::vector<Period> _periods;
   std::vector<StatVal> _fineValues;
   std::vector<StatVal> _coarseValues;
   std::vector<StatVal> _samples;
};

} // namespace

void CompareRollups(const Mending& mending, const DepotImage& depot, bool recompute)
{
   if (!depot.IsComplete()) {
      return; // each interval lacks others of its newest samples
   }
   // In the order of ids, in which the rows are read in ranges.
   std::vector<const Stat*> stats;
   for (const Stat& stat : depot.GetStats().GetStats()) {
      stats.push_back(&stat);
   }
   std::ranges::sort(stats, {}, [](const Stat* stat) { return stat->series.front().id; });
   const std::vector<IntervalImage>& intervals = depot.GetIntervals();
   for (size_t i = 1; i < intervals.size(); ++i) {
      Comparison comparison(mending, intervals[i], intervals[i - 1], recompute);
      for (const Stat* const stat : stats) {
         for (const Series& series : stat->series) {
            if (series.rollup != StatsDepot::ROLLUP_NONE) {
               // Raw series feed the second interval; from there each rollup feeds itself.
               comparison.Compare(*stat, series, i == 1 ? stat->series.front().id : series.id);
            }
         }
      }
      intervals[i].store->Finish();
   }
}

} // namespace DepotTool
