#include "metrix/statsStoreImpl.h"

#include "corvax/exception.h"

namespace Metrix {

using StoreFormat::StatVector;

void StatsStoreImpl::SetColumns(const std::vector<TimeStamp>& columns)
{
   _columns = ColumnRing(columns);
   _lostColumns.clear();
   if (_head) {
      _head->Clear();
   }
}

void StatsStoreImpl::HideColumns(const std::vector<size_t>& columns)
{
   std::vector<TimeStamp> stamps = _columns.GetAllTimeStamps();
   _lostColumns.resize(_numSamples, false);
   for (const size_t column : columns) {
      stamps[column] = kUnset;
      _lostColumns[column] = true;
   }
   _columns = ColumnRing(FillGaps(std::move(stamps), _samplingPeriod));
}

std::vector<TimeStamp> StatsStoreImpl::HideImpossibleColumns(TimeStamp newest)
{
   const std::vector<size_t> columns =
      FindImpossibleColumns(_columns.GetAllTimeStamps(), _samplingPeriod, newest);
   std::vector<TimeStamp> stamps;
   for (const size_t column : columns) {
      stamps.push_back(_columns.GetAllTimeStamps()[column]);
   }
   HideColumns(columns);
   _writtenStamp = _headerStamp = _columns.GetLatestTimeStamp();
   return stamps;
}

void StatsStoreImpl::HideNewerColumns()
{
   const TimeStamp latest = _columns.GetLatestTimeStamp();
   std::vector<size_t> newer;
   for (size_t column = 0; column < _fileColumns.size(); ++column) {
      const TimeStamp inFile = _fileColumns[column];
      if (inFile != kUnset && (latest == kUnset || inFile > latest)) {
         newer.push_back(column);
      }
   }
   HideColumns(newer);
}

bool StatsStoreImpl::HasHiddenColumns()
{
   return std::ranges::find(_lostColumns, true) != _lostColumns.end();
}

void StatsStoreImpl::WriteHeader()
{
   const std::vector<TimeStamp>& columns = _columns.GetAllTimeStamps();
   const bool writesAll = _mustRewriteHeader.exchange(false);
   try {
      for (size_t column = 0; column < columns.size(); ++column) {
         if (writesAll || columns[column] != _fileColumns[column]) {
            WriteTimeStamp(static_cast<int32_t>(column), columns[column]);
         }
      }
   } catch (...) {
      _mustRewriteHeader = writesAll || _mustRewriteHeader;
      throw;
   }
   _writtenStamp = _columns.GetLatestTimeStamp();
}

TimeStamp StatsStoreImpl::GetSettledStamp()
{
   if (_headerStamp == kUnset || _columns.GetLatest() < 0) {
      return 0;
   }
   if (_headerStamp != _columns.GetLatestTimeStamp()) {
      return _headerStamp;
   }
   const TimeStamp previous = _columns.GetTimeStamp(_columns.GetPrevious(_columns.GetLatest()));
   return previous == kUnset || previous > _headerStamp ? 0 : previous;
}

/// Rows are read and written whole, many together. Where they are long, those that only get a few
/// samples more are extended, after the others: the window must not write older copies of them.
void StatsStoreImpl::SetHeaderDurable()
{
   _headerStamp = _writtenStamp;
   const uint64_t rowBytes = _storeHandle->GetSize() - _statVectorPos;
   _fileSize = _statVectorPos + rowBytes - rowBytes % _rowSize;
}

int StatsStoreImpl::GiveUpColumnsAfter(TimeStamp ts)
{
   // By the file's header, too: its rows may have samples in columns that memory does not know.
   std::vector<TimeStamp> columns = _columns.GetAllTimeStamps();
   _lostColumns.resize(columns.size(), false);
   std::vector<size_t> givenUp;
   for (size_t column = 0; column < columns.size(); ++column) {
      const auto isAhead = [ts](TimeStamp stamp) { return stamp != kUnset && stamp > ts; };
      if (_lostColumns[column] || isAhead(columns[column]) || isAhead(_fileColumns[column])) {
         givenUp.push_back(column);
         columns[column] = kUnset;
      }
   }
   if (givenUp.empty() || !_rows) {
      return 0;
   }
   columns = FillGaps(std::move(columns), _samplingPeriod);
   const ColumnRing left(columns);
   const bool wasBatch = _rows->IsBatch();
   _rows->BeginBatch();
   for (StatId id = 0; id < _numStats; ++id) {
      StatVector row(_rows->Get(id));
      if (!row.IsUsed()) {
         continue;
      }
      for (const size_t column : givenUp) {
         row.SetSample(column, kUnset);
      }
      // A stamp without a column would wipe the whole row with its next sample.
      if (row.GetTimeStamp() != kUnset && left.FindColumn(row.GetTimeStamp()) < 0) {
         row.SetTimeStamp(left.FindStampUpTo(row.GetTimeStamp()));
      }
      _rows->MarkDirty(id);
   }
   _rows->EndBatch();
   if (wasBatch) {
      _rows->BeginBatch();
   }
   Flush(); // the header last: rows that still have the columns must not lose their stamps
   SetColumns(columns);
   WriteHeader();
   Flush();
   SetHeaderDurable();
   return static_cast<int>(givenUp.size());
}

} // namespace Metrix
