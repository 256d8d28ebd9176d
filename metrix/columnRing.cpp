#include "metrix/columnRing.h"

#include <algorithm>
#include <utility>

namespace Metrix {

ColumnRing::ColumnRing(std::vector<TimeStamp> timeStamps) : _timeStamps(std::move(timeStamps))
{
   for (int32_t column = 0; column < GetSize(); ++column) {
      const TimeStamp ts = GetTimeStamp(column);
      if (ts == kUnset) {
         continue;
      }
      if (_latestTsCol < 0 || ts > GetTimeStamp(_latestTsCol)) {
         _latestTsCol = column;
      }
      if (_earliestTsCol < 0 || ts < GetTimeStamp(_earliestTsCol)) {
         _earliestTsCol = column;
      }
   }
   for (int32_t column = _earliestTsCol; column != _latestTsCol; column = GetNext(column)) {
      _stampsAscend = _stampsAscend && GetTimeStamp(column) < GetTimeStamp(GetNext(column));
   }
}

TimeStamp ColumnRing::GetEarliestTimeStamp() const
{
   return _earliestTsCol < 0 ? kUnset : GetTimeStamp(_earliestTsCol);
}

TimeStamp ColumnRing::GetLatestTimeStamp() const
{
   return _latestTsCol < 0 ? kUnset : GetTimeStamp(_latestTsCol);
}

int32_t ColumnRing::FindColumn(TimeStamp ts) const
{
   const int32_t column = FindClosestColumn(ts);
   if (column >= 0 && GetTimeStamp(column) == ts) {
      return column;
   }
   return _stampsAscend ? -1 : FindFirst([ts](TimeStamp stamp) { return stamp == ts; });
}

int32_t ColumnRing::FindClosestColumn(TimeStamp ts) const
{
   if (!_stampsAscend) {
      return FindFirst([ts](TimeStamp stamp) { return stamp >= ts; });
   }
   if (_latestTsCol < 0 || ts > GetTimeStamp(_latestTsCol)) {
      return -1;
   }
   // Most samples go into the latest column: try it before bisecting.
   int32_t low = 0;
   int32_t high = GetDistance(_earliestTsCol, _latestTsCol);
   if (high == 0 || ts > GetTimeStamp(GetColumnAt(high - 1))) {
      return _latestTsCol;
   }
   while (low < high) {
      const int32_t middle = low + (high - low) / 2;
      if (GetTimeStamp(GetColumnAt(middle)) >= ts) {
         high = middle;
      } else {
         low = middle + 1;
      }
   }
   return GetColumnAt(low);
}

ColumnRing::Range ColumnRing::GetRange(int32_t first, TimeStamp end) const
{
   Range range{first, 0};
   if (first < 0) {
      return range;
   }
   if (_stampsAscend && end >= GetTimeStamp(_latestTsCol)) {
      range.count = static_cast<size_t>(GetDistance(first, _latestTsCol)) + 1;
      return range;
   }
   for (int32_t column = first; GetTimeStamp(column) <= end; column = GetNext(column)) {
      ++range.count;
      if (column == _latestTsCol) {
         break;
      }
   }
   return range;
}

size_t ColumnRing::CountBeforeWrap(const Range& range) const
{
   const auto toWrap = static_cast<size_t>(GetSize() - range.first);
   return std::min(range.count, toWrap);
}

void ColumnRing::GetTimeStamps(const Range& range, std::vector<TimeStamp>& timeStamps) const
{
   timeStamps.resize(range.count);
   if (range.count == 0) {
      return;
   }
   const size_t beforeWrap = CountBeforeWrap(range);
   std::copy_n(&_timeStamps[static_cast<size_t>(range.first)], beforeWrap, timeStamps.data());
   std::copy_n(_timeStamps.data(), range.count - beforeWrap, timeStamps.data() + beforeWrap);
}

void ColumnRing::AddColumn(TimeStamp ts)
{
   const int32_t column = GetColumnToAdd();
   _timeStamps[static_cast<size_t>(column)] = ts;
   _latestTsCol = column;
   if (_earliestTsCol == column) {
      _earliestTsCol = GetNext(column);
   } else if (_earliestTsCol < 0) {
      _earliestTsCol = column;
   }
}

/// The column `distance` steps after the earliest.
int32_t ColumnRing::GetColumnAt(int32_t distance) const
{
   // Wide enough for the sum: a ring may have as many columns as an int32_t can count.
   const int64_t column = int64_t{_earliestTsCol} + distance;
   return static_cast<int32_t>(column < GetSize() ? column : column - GetSize());
}

/// The steps forward from one column to another.
int32_t ColumnRing::GetDistance(int32_t from, int32_t to) const
{
   return to >= from ? to - from : to - from + GetSize();
}

/// The first column from the earliest to the latest whose stamp satisfies `matches`; -1 if there is
/// none.
template <class Matches>
int32_t ColumnRing::FindFirst(Matches matches) const
{
   if (_latestTsCol < 0) {
      return -1;
   }
   for (int32_t column = _earliestTsCol;; column = GetNext(column)) {
      if (matches(GetTimeStamp(column))) {
         return column;
      }
      if (column == _latestTsCol) {
         return -1;
      }
   }
}

} // namespace Metrix
