#include "metrix/columnRing.h"

#include <algorithm>
#include <iterator>
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

TimeStamp ColumnRing::FindStampUpTo(TimeStamp ts) const
{
   TimeStamp found = kUnset;
   for (const TimeStamp stamp : _timeStamps) {
      if (stamp <= ts && stamp != kUnset && (found == kUnset || stamp > found)) {
         found = stamp;
      }
   }
   return found;
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

namespace {

/// The places of a longest ascending sequence.
std::vector<size_t> FindLongestAscent(const std::vector<TimeStamp>& stamps)
{
   std::vector<size_t> ends; // by length: the place of the lowest stamp that ends such a sequence
   std::vector<size_t> before(stamps.size());
   for (size_t i = 0; i < stamps.size(); ++i) {
      const auto found = std::ranges::lower_bound(
         ends, stamps[i], {}, [&stamps](size_t place) { return stamps[place]; });
      before[i] = found == ends.begin() ? i : *(found - 1);
      if (found == ends.end()) {
         ends.push_back(i);
      } else {
         *found = i;
      }
   }
   std::vector<size_t> ascent(ends.size());
   for (size_t length = ends.size(), place = ends.empty() ? 0 : ends.back(); length > 0;
        place = before[place]) {
      ascent[--length] = place;
   }
   return ascent;
}

} // namespace

std::vector<TimeStamp> FillGaps(std::vector<TimeStamp> timeStamps, uint64_t period)
{
   const ColumnRing ring(timeStamps);
   for (int32_t column = ring.GetEarliest(); column != ring.GetLatest();
        column = ring.GetNext(column)) {
      const TimeStamp ts = timeStamps[static_cast<size_t>(column)];
      TimeStamp& next = timeStamps[static_cast<size_t>(ring.GetNext(column))];
      next = next == kUnset ? ts + period : next;
   }
   return timeStamps;
}

std::vector<size_t> FindImpossibleColumns(const std::vector<TimeStamp>& timeStamps, uint64_t period,
                                          TimeStamp newest)
{
   std::vector<size_t> impossible;
   std::vector<size_t> columns; // that remain
   for (size_t column = 0; column < timeStamps.size(); ++column) {
      const TimeStamp ts = timeStamps[column];
      if (ts != kUnset) {
         (ts % period == 0 && ts <= newest ? columns : impossible).push_back(column);
      }
   }
   // The ring begins behind one of the places at which the stamps fall. Trying the first ones must
   // do where there are more than any damage explains.
   constexpr int kMaxStarts = 16;
   int starts = 1;
   std::vector<size_t> best;
   const auto tryFrom = [&](size_t start) {
      std::vector<size_t> rotated(columns.begin() + static_cast<ptrdiff_t>(start), columns.end());
      rotated.insert(rotated.end(), columns.begin(),
                     columns.begin() + static_cast<ptrdiff_t>(start));
      std::vector<TimeStamp> stamps;
      for (const size_t column : rotated) {
         stamps.push_back(timeStamps[column]);
      }
      std::vector<size_t> ascent = FindLongestAscent(stamps);
      if (ascent.size() > best.size()) {
         std::ranges::transform(ascent, ascent.begin(), [&](size_t i) { return rotated[i]; });
         best = std::move(ascent);
      }
   };
   tryFrom(0);
   for (size_t i = 1; i < columns.size() && best.size() < columns.size(); ++i) {
      if (timeStamps[columns[i]] < timeStamps[columns[i - 1]] && starts < kMaxStarts) {
         ++starts;
         tryFrom(i);
      }
   }
   std::ranges::sort(best);
   std::ranges::set_difference(columns, best, std::back_inserter(impossible));
   return impossible;
}

} // namespace Metrix
