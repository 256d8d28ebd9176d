#pragma once

#include "metrix/statTypes.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Metrix {

/// The columns of a store: a ring of time stamps, in which a new stamp replaces the oldest one once
/// all columns are in use. Columns are numbered from 0; -1 means no column.
///
/// Invariant: from the earliest column to the latest the stamps ascend. Only a damaged file can
/// break that; searches then check column by column instead of bisecting.
class ColumnRing {
public:
   /// Consecutive columns, which may wrap.
   struct Range {
      int32_t first = -1;
      size_t count = 0;
   };

   /// A ring without columns, to which none can be added.
   ColumnRing() = default;

   /// One stamp per column, unset where the column is not in use. The greatest stamp is the latest
   /// column's, the smallest the earliest's; of equal ones the lower column counts.
   explicit ColumnRing(std::vector<TimeStamp> timeStamps);

   int32_t GetEarliest() const { return _earliestTsCol; }
   int32_t GetLatest() const { return _latestTsCol; }
   /// By column, unset for those not in use.
   const std::vector<TimeStamp>& GetAllTimeStamps() const { return _timeStamps; }
   TimeStamp GetTimeStamp(int32_t column) const { return _timeStamps[static_cast<size_t>(column)]; }
   /// Unset when no column is in use.
   TimeStamp GetEarliestTimeStamp() const;
   TimeStamp GetLatestTimeStamp() const;

   int32_t GetNext(int32_t column) const { return column + 1 == GetSize() ? 0 : column + 1; }
   int32_t GetPrevious(int32_t column) const { return (column == 0 ? GetSize() : column) - 1; }

   /// The column in use with exactly this stamp; -1 if there is none.
   int32_t FindColumn(TimeStamp ts) const;
   /// The oldest column in use whose stamp is at least `ts`; -1 if there is none.
   int32_t FindClosestColumn(TimeStamp ts) const;

   /// The newest stamp in use that is at most `ts`; unset if there is none.
   TimeStamp FindStampUpTo(TimeStamp ts) const;

   /// The columns from `first` to the latest, or to the last one before a stamp greater than `end`.
   /// Empty if `first` is -1.
   Range GetRange(int32_t first, TimeStamp end) const;
   /// Number of columns of the range that come before the ring wraps to column 0.
   size_t CountBeforeWrap(const Range& range) const;
   /// Replaces `timeStamps` by those of the range.
   void GetTimeStamps(const Range& range, std::vector<TimeStamp>& timeStamps) const;

   /// The column that AddColumn would take.
   int32_t GetColumnToAdd() const { return GetNext(_latestTsCol); }
   /// Makes GetColumnToAdd the latest column. `ts` is greater than every stamp in use.
   void AddColumn(TimeStamp ts);

private:
   int32_t GetSize() const { return static_cast<int32_t>(_timeStamps.size()); }
   int32_t GetColumnAt(int32_t distance) const;
   int32_t GetDistance(int32_t from, int32_t to) const;
   template <class Matches>
   int32_t FindFirst(Matches matches) const;

   std::vector<TimeStamp> _timeStamps;
   int32_t _earliestTsCol = -1;
   int32_t _latestTsCol = -1;
   bool _stampsAscend = true;
};

/// Gives columns that are not in use, but lie between others, the stamps that follow those before
/// them at the period: a ring has no holes.
std::vector<TimeStamp> FillGaps(std::vector<TimeStamp> timeStamps, uint64_t period);

/// Columns whose stamps a sound ring of this period cannot have: no multiple of the period, newer
/// than `newest`, or out of order. Of those out of order the fewest are named.
std::vector<size_t> FindImpossibleColumns(const std::vector<TimeStamp>& timeStamps, uint64_t period,
                                          TimeStamp newest);

} // namespace Metrix
