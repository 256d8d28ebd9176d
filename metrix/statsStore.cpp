#include "metrix/statsStore.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "metrix/littleEndian.h"
#include "metrix/rowWindow.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::FileCreation;

// The header: number of columns, sampling period, then the column stamps.
constexpr uint64_t kNumSamplesPos = 0;
constexpr uint64_t kSamplingPeriodPos = 4;
constexpr uint64_t kTimeStampPos = 8;
constexpr uint64_t kTimeStampSize = 8;

// A row: used flag, stamp of the newest sample, then a sample a column. No padding.
constexpr size_t kRowUsedPos = 0;
constexpr size_t kRowTimeStampPos = 4;
constexpr size_t kRowSamplesPos = 12;
constexpr size_t kSampleSize = 8;

/// A row as it lies in the file: a view on its bytes.
class StatVector {
public:
   explicit StatVector(std::byte* bytes) : _bytes(bytes) {}

   bool IsUsed() const { return Decode<uint32_t>(&_bytes[kRowUsedPos]) != 0; }
   void SetFree() { Encode(uint32_t{0}, &_bytes[kRowUsedPos]); }
   TimeStamp GetTimeStamp() const { return Decode<uint64_t>(&_bytes[kRowTimeStampPos]); }
   void SetTimeStamp(TimeStamp ts) { Encode(ts, &_bytes[kRowTimeStampPos]); }
   StatVal GetSample(uint32_t column) const { return Decode<uint64_t>(&_bytes[SamplePos(column)]); }
   void SetSample(uint32_t column, StatVal value) { Encode(value, &_bytes[SamplePos(column)]); }

   /// The samples of neighbouring columns.
   void GetSamples(uint32_t firstColumn, std::span<StatVal> values) const
   {
      const std::byte* in = &_bytes[SamplePos(firstColumn)];
      for (StatVal& value : values) {
         value = Decode<StatVal>(in);
         in += kSampleSize;
      }
   }

   /// The row of a stat that has no sample yet.
   void Clear(uint32_t numSamples)
   {
      Encode(uint32_t{1}, &_bytes[kRowUsedPos]);
      SetTimeStamp(kUnset);
      for (uint32_t column = 0; column < numSamples; ++column) {
         SetSample(column, kUnset);
      }
   }

   static size_t SamplePos(uint32_t column) { return kRowSamplesPos + column * kSampleSize; }

private:
   std::byte* const _bytes;
};

class StatsStoreImpl : public StatsStore, public Corvax::ObjectImpl {
public:
   StatsStoreImpl(std::string fileName, Corvax::Logger* logger)
      : _fileName(std::move(fileName)), _logger(logger)
   {
   }

   void Create(int samplingPeriod, int numSamples) override;
   void Load() override;
   void Flush() override;
   void AddSample(StatId statId, TimeStamp ts, StatVal value) override;
   StatVal GetSample(StatId statId, TimeStamp ts) override;
   int GetSamples(StatId statId, TimeStamp begin, TimeStamp end, std::vector<StatVal>& values,
                  std::vector<TimeStamp>* timeStamps) override;
   TimeStamp GetLastUpdateTime(StatId statId) override;
   bool DeleteStat(StatId statId) override;
   TimeStamp GetLatestTimeStamp() override;
   TimeStamp GetEarliestTimeStamp() override;
   void GetTimeStamps(std::vector<TimeStamp>& timeStamps) override;
   uint32_t GetNumSamples() override { return _numSamples; }
   uint32_t GetSamplingPeriod() override { return _samplingPeriod; }
   void BeginBatch() override;
   void EndBatch() override;

private:
   void AssertOpen() const { Assert(_storeHandle && _storeHandle->IsOpen(), "the store is open"); }
   [[noreturn]] void ThrowDamaged(const std::string& message);
   uint32_t ReadUInt32(uint64_t pos);
   void ReadTimeStamps();
   void FindColumnsInUse();

   int64_t FindRow(StatId statId) const;
   std::optional<StatVector> GetStatVector(StatId statId);
   StatVector AllocStatVector(StatId statId);
   void WriteStatVector(StatId statId);
   bool PutSampleAlone(StatId statId, int32_t column, TimeStamp ts, StatVal value);
   void RememberStamp(StatId statId, TimeStamp ts);
   void ForgetStampsAfterLoss();

   int32_t NextColumn(int32_t column) const;
   template <class Matches>
   int32_t FirstColumn(Matches matches) const;
   int32_t FindColumn(TimeStamp ts) const;
   int32_t FindClosestColumn(TimeStamp ts) const;
   int32_t CountColumns() const;
   size_t CountColumns(int32_t first, TimeStamp end) const;
   int32_t ColumnAt(int32_t distance) const;
   int32_t ChooseColumn(TimeStamp ts);
   int32_t AddColumn(TimeStamp ts);
   void WriteTimeStamp(int32_t column, TimeStamp ts);
   void InvalidateGap(StatVector& row, int32_t chosen) const;
   TimeStamp StampOf(int32_t column) const { return _timeStamps[static_cast<size_t>(column)]; }

   const std::string _fileName;
   Corvax::Ref<Corvax::FileHandle> _storeHandle;
   uint32_t _numStats = 0; ///< rows known
   uint32_t _numSamples = 0;
   uint32_t _samplingPeriod = 0;
   std::vector<TimeStamp> _timeStamps; ///< a copy of the column stamps
   uint64_t _statVectorPos = 0;        ///< file offset of row 0
   size_t _rowSize = 0;
   std::unique_ptr<RowWindow> _rows;
   uint64_t _lossesSeen = 0;
   std::vector<TimeStamp> _rowStamps; ///< of rows in the file, by id; unset: not known, or free
   int32_t _earliestTsCol = -1;       ///< -1: no column is in use
   int32_t _latestTsCol = -1;
   bool _stampsAscend = true; ///< from the earliest column to the latest; not so in a damaged file
   const Corvax::Ref<Corvax::Logger> _logger;
};

void StatsStoreImpl::Create(int samplingPeriod, int numSamples)
{
   if (samplingPeriod < 1 || numSamples < 1) {
      throw Corvax::InvalidArgumentException();
   }
   const auto columns = static_cast<size_t>(numSamples);
   std::vector<std::byte> header(kTimeStampPos + columns * kTimeStampSize, std::byte{0xff});
   Encode(static_cast<uint32_t>(numSamples), &header[kNumSamplesPos]);
   Encode(static_cast<uint32_t>(samplingPeriod), &header[kSamplingPeriodPos]);

   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(_fileName, Corvax::FILE_WRITE, FileCreation::CREATE_ALWAYS);
   file->WriteAll(header.data(), header.size());
   file->Flush();
   file->Close();
   Load();
}

void StatsStoreImpl::Load()
{
   const uint64_t size = Corvax::System::GetFactory().GetFileSize(_fileName);
   const std::string badSize = "Invalid file size for StatsStore " + _fileName;
   if (size < kTimeStampPos) {
      ThrowDamaged(badSize);
   }
   _storeHandle = Corvax::System::GetFactory().NewFileHandle();
   _storeHandle->Open(_fileName, Corvax::FILE_READ_WRITE, FileCreation::OPEN_EXISTING);
   _numSamples = ReadUInt32(kNumSamplesPos);
   _samplingPeriod = ReadUInt32(kSamplingPeriodPos);
   _statVectorPos = kTimeStampPos + kTimeStampSize * _numSamples;
   _rowSize = static_cast<size_t>(kRowSamplesPos + kSampleSize * uint64_t{_numSamples});
   if (size < _statVectorPos) {
      ThrowDamaged(badSize);
   }
   constexpr auto kLargest = static_cast<uint32_t>(std::numeric_limits<int32_t>::max());
   if (_numSamples < 1 || _numSamples > kLargest || _samplingPeriod < 1 ||
       _samplingPeriod > kLargest) {
      ThrowDamaged("Invalid header in StatsStore " + _fileName);
   }
   const uint64_t rows = (size - _statVectorPos) / _rowSize;
   _numStats = static_cast<uint32_t>(std::min<uint64_t>(rows, UINT32_MAX));
   if ((size - _statVectorPos) % _rowSize != 0) {
      _logger->Log(Corvax::kLogWarning, "StatsStore %1 ends with a part of a row, which is ignored",
                   _fileName);
   }
   ReadTimeStamps();
   FindColumnsInUse();
   _rows = std::make_unique<RowWindow>(_storeHandle, _statVectorPos, _rowSize);
}

void StatsStoreImpl::ThrowDamaged(const std::string& message)
{
   _logger->Log(Corvax::kLogError, "%1", message);
   throw Corvax::FileFormatException(message);
}

uint32_t StatsStoreImpl::ReadUInt32(uint64_t pos)
{
   std::byte bytes[4];
   _storeHandle->Seek(pos);
   if (_storeHandle->Read(bytes, sizeof bytes) < sizeof bytes) {
      const std::string message = "Read failed for StatsStore" + _fileName;
      _logger->Log(Corvax::kLogError, "%1", message);
      throw Corvax::Exception(message);
   }
   return Decode<uint32_t>(bytes);
}

void StatsStoreImpl::ReadTimeStamps()
{
   std::vector<std::byte> bytes(_numSamples * kTimeStampSize);
   _storeHandle->Seek(kTimeStampPos);
   if (_storeHandle->Read(bytes.data(), bytes.size()) < bytes.size()) {
      const std::string message = "Unable to read timestamps from StatsStore " + _fileName;
      _logger->Log(Corvax::kLogError, "%1", message);
      throw Corvax::Exception(message);
   }
   _timeStamps.resize(_numSamples);
   for (size_t column = 0; column < _timeStamps.size(); ++column) {
      _timeStamps[column] = Decode<uint64_t>(&bytes[column * kTimeStampSize]);
   }
}

/// Of equal stamps the lower column counts.
void StatsStoreImpl::FindColumnsInUse()
{
   _earliestTsCol = -1;
   _latestTsCol = -1;
   for (int32_t column = 0; column < static_cast<int32_t>(_numSamples); ++column) {
      const TimeStamp ts = StampOf(column);
      if (ts == kUnset) {
         continue;
      }
      if (_latestTsCol < 0 || ts > StampOf(_latestTsCol)) {
         _latestTsCol = column;
      }
      if (_earliestTsCol < 0 || ts < StampOf(_earliestTsCol)) {
         _earliestTsCol = column;
      }
   }
   std::vector<TimeStamp> stamps;
   FirstColumn([&stamps](TimeStamp stamp) {
      stamps.push_back(stamp);
      return false;
   });
   _stampsAscend = std::ranges::adjacent_find(stamps, std::greater_equal()) == stamps.end();
}

void StatsStoreImpl::Flush()
{
   AssertOpen();
   _storeHandle->Flush();
}

/// The row of a stat is its id; -1 when the file has no such row.
int64_t StatsStoreImpl::FindRow(StatId statId) const
{
   return statId < _numStats ? static_cast<int64_t>(statId) : -1;
}

/// Nothing when there is no row, or a free one. Valid until the next row is got.
std::optional<StatVector> StatsStoreImpl::GetStatVector(StatId statId)
{
   const int64_t index = FindRow(statId);
   if (index < 0) {
      return std::nullopt;
   }
   const StatVector row(_rows->Get(static_cast<uint64_t>(index)));
   return row.IsUsed() ? std::optional(row) : std::nullopt;
}

/// A new row for the stat, not yet in the file.
StatVector StatsStoreImpl::AllocStatVector(StatId statId)
{
   StatVector row(_rows->Get(statId));
   row.Clear(_numSamples);
   _numStats = std::max(_numStats, static_cast<uint32_t>(statId) + 1);
   return row;
}

void StatsStoreImpl::WriteStatVector(StatId statId)
{
   _rows->Put(statId);
}

int32_t StatsStoreImpl::NextColumn(int32_t column) const
{
   return column + 1 == static_cast<int32_t>(_numSamples) ? 0 : column + 1;
}

/// The first column in use, from the earliest to the latest, whose stamp satisfies `matches`; -1
/// when there is none.
template <class Matches>
int32_t StatsStoreImpl::FirstColumn(Matches matches) const
{
   if (_latestTsCol < 0) {
      return -1;
   }
   for (int32_t column = _earliestTsCol;; column = NextColumn(column)) {
      if (matches(StampOf(column))) {
         return column;
      }
      if (column == _latestTsCol) {
         return -1;
      }
   }
}

int32_t StatsStoreImpl::FindColumn(TimeStamp ts) const
{
   const int32_t column = FindClosestColumn(ts);
   if (column >= 0 && StampOf(column) == ts) {
      return column;
   }
   return _stampsAscend ? -1 : FirstColumn([ts](TimeStamp stamp) { return stamp == ts; });
}

int32_t StatsStoreImpl::FindClosestColumn(TimeStamp ts) const
{
   if (!_stampsAscend) {
      return FirstColumn([ts](TimeStamp stamp) { return stamp >= ts; });
   }
   if (_latestTsCol < 0 || ts > StampOf(_latestTsCol)) {
      return -1;
   }
   // Counted from the earliest column on, the circle is one ascending run.
   int32_t low = 0;
   int32_t high = CountColumns() - 1;
   if (high == 0 || ts > StampOf(ColumnAt(high - 1))) {
      return _latestTsCol; // where most samples go
   }
   while (low < high) {
      const int32_t middle = low + (high - low) / 2;
      if (StampOf(ColumnAt(middle)) >= ts) {
         high = middle;
      } else {
         low = middle + 1;
      }
   }
   return ColumnAt(low);
}

/// Columns in use; there is at least one.
int32_t StatsStoreImpl::CountColumns() const
{
   const int32_t count = _latestTsCol - _earliestTsCol + 1;
   return count > 0 ? count : count + static_cast<int32_t>(_numSamples);
}

/// The column that comes so many behind the earliest.
int32_t StatsStoreImpl::ColumnAt(int32_t distance) const
{
   const int64_t column = int64_t{_earliestTsCol} + distance;
   const auto columns = static_cast<int64_t>(_numSamples);
   return static_cast<int32_t>(column < columns ? column : column - columns);
}

/// A sample goes into a column of its own stamp or into a new, newest one; never between.
int32_t StatsStoreImpl::ChooseColumn(TimeStamp ts)
{
   if (_latestTsCol < 0 || ts > StampOf(_latestTsCol)) {
      return AddColumn(ts);
   }
   const int32_t column = FindColumn(ts);
   if (column < 0) {
      _logger->Log(Corvax::kLogError, "");
      throw Corvax::InvalidArgumentException();
   }
   return column;
}

/// Takes the next column of the circle, the oldest one when all are in use. The rows keep what they
/// held there; InvalidateGap and the read rules tell it from new samples.
int32_t StatsStoreImpl::AddColumn(TimeStamp ts)
{
   const int32_t column = NextColumn(_latestTsCol);
   WriteTimeStamp(column, ts); // first: when it fails, nothing has changed
   _timeStamps[static_cast<size_t>(column)] = ts;
   _latestTsCol = column;
   if (_earliestTsCol == column) {
      _earliestTsCol = NextColumn(column);
   } else if (_earliestTsCol < 0) {
      _earliestTsCol = column;
   }
   return column;
}

void StatsStoreImpl::WriteTimeStamp(int32_t column, TimeStamp ts)
{
   std::byte bytes[kTimeStampSize];
   Encode(ts, bytes);
   _storeHandle->Seek(kTimeStampPos + kTimeStampSize * static_cast<uint64_t>(column));
   _storeHandle->WriteAll(bytes, sizeof bytes);
}

/// Wipes what the row still holds, from an earlier round of the circle, in the columns for which
/// the stat got no sample since its last one. A sample for a column that is not newer than the
/// stat's last wipes all from the one after the last, round the circle, up to it; kept on purpose.
void StatsStoreImpl::InvalidateGap(StatVector& row, int32_t chosen) const
{
   const int32_t columns = static_cast<int32_t>(_numSamples);
   const TimeStamp previous = StampOf(chosen == 0 ? columns - 1 : chosen - 1);
   if (previous == kUnset || row.GetTimeStamp() == kUnset || row.GetTimeStamp() == previous) {
      return;
   }
   const int32_t last = FindColumn(row.GetTimeStamp());
   for (int32_t column = NextColumn(last < 0 ? chosen : last); column != chosen;
        column = NextColumn(column)) {
      row.SetSample(static_cast<uint32_t>(column), kUnset);
   }
}

void StatsStoreImpl::AddSample(StatId statId, TimeStamp ts, StatVal value)
{
   AssertOpen();
   if (ts == kUnset || statId >= UINT32_MAX) {
      throw Corvax::InvalidArgumentException();
   }
   const int32_t column = ChooseColumn(ts);
   if (PutSampleAlone(statId, column, ts, value)) {
      return;
   }
   std::optional<StatVector> known = GetStatVector(statId);
   StatVector row = known ? *known : AllocStatVector(statId);
   InvalidateGap(row, column);
   row.SetSample(static_cast<uint32_t>(column), value);
   row.SetTimeStamp(ts);
   WriteStatVector(statId);
   RememberStamp(statId, ts);
}

/// A long row whose stamp is known and which has nothing to wipe need not be read for a sample. The
/// sample goes first: without the stamp it is not seen, while a stamp alone would show what the
/// column held a round ago.
bool StatsStoreImpl::PutSampleAlone(StatId statId, int32_t column, TimeStamp ts, StatVal value)
{
   ForgetStampsAfterLoss();
   if (!_rows->TakesPieces() || statId >= _rowStamps.size()) {
      return false;
   }
   const TimeStamp previous =
      StampOf(column == 0 ? static_cast<int32_t>(_numSamples) - 1 : column - 1);
   if (_rowStamps[statId] == kUnset || _rowStamps[statId] != previous) {
      return false;
   }
   _rows->SetPiece(statId, StatVector::SamplePos(static_cast<uint32_t>(column)), value);
   _rows->SetPiece(statId, kRowTimeStampPos, ts);
   _rowStamps[statId] = ts;
   return true;
}

/// What could not be written is not in the file, so nothing is known of any row any more.
void StatsStoreImpl::ForgetStampsAfterLoss()
{
   if (_rows->GetLosses() != _lossesSeen) {
      _lossesSeen = _rows->GetLosses();
      _rowStamps.clear();
   }
}

void StatsStoreImpl::RememberStamp(StatId statId, TimeStamp ts)
{
   if (statId >= _rowStamps.size()) {
      _rowStamps.resize(_numStats, kUnset);
   }
   _rowStamps[statId] = ts;
}

StatVal StatsStoreImpl::GetSample(StatId statId, TimeStamp ts)
{
   AssertOpen();
   const int32_t column = FindColumn(ts);
   if (column < 0) {
      return kUnset;
   }
   const std::optional<StatVector> row = GetStatVector(statId);
   // Columns newer than the row's last sample hold values of an earlier round.
   return row && row->GetTimeStamp() >= ts ? row->GetSample(static_cast<uint32_t>(column)) : kUnset;
}

int StatsStoreImpl::GetSamples(StatId statId, TimeStamp begin, TimeStamp end,
                               std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps)
{
   AssertOpen();
   const int32_t first = begin == kUnset ? _earliestTsCol : FindClosestColumn(begin);
   const size_t length = first < 0 ? 0 : CountColumns(first, end);
   values.resize(length);
   std::vector<TimeStamp> ownStamps;
   std::vector<TimeStamp>& stamps = timeStamps ? *timeStamps : ownStamps;
   stamps.resize(length);
   if (length == 0) {
      return 0;
   }
   // Round the circle in two straight runs at most.
   const auto column = static_cast<uint32_t>(first);
   const size_t straight = std::min<size_t>(length, _numSamples - column);
   std::copy_n(&_timeStamps[column], straight, stamps.begin());
   std::copy_n(_timeStamps.begin(), length - straight,
               stamps.begin() + static_cast<long>(straight));
   const std::optional<StatVector> row = GetStatVector(statId);
   if (!row) {
      std::ranges::fill(values, kUnset);
      return 0;
   }
   row->GetSamples(column, {values.data(), straight});
   row->GetSamples(0, {values.data() + straight, length - straight});
   // Columns newer than the row's last sample hold values of an earlier round.
   const TimeStamp newest = row->GetTimeStamp();
   int count = 0;
   for (size_t i = 0; i < length; ++i) {
      values[i] = stamps[i] <= newest ? values[i] : kUnset;
      count += values[i] != kUnset ? 1 : 0;
   }
   return count;
}

/// Columns from one on, as far as the latest, that come before the first whose stamp is beyond
/// `end`.
size_t StatsStoreImpl::CountColumns(int32_t first, TimeStamp end) const
{
   if (_stampsAscend && end >= StampOf(_latestTsCol)) {
      const int32_t distance = _latestTsCol - first;
      return static_cast<size_t>(distance < 0 ? distance + static_cast<int32_t>(_numSamples)
                                              : distance) +
             1;
   }
   size_t count = 0;
   for (int32_t column = first; StampOf(column) <= end; column = NextColumn(column)) {
      ++count;
      if (column == _latestTsCol) {
         break;
      }
   }
   return count;
}

TimeStamp StatsStoreImpl::GetLastUpdateTime(StatId statId)
{
   AssertOpen();
   const std::optional<StatVector> row = GetStatVector(statId);
   return row ? row->GetTimeStamp() : kUnset;
}

bool StatsStoreImpl::DeleteStat(StatId statId)
{
   AssertOpen();
   if (FindRow(statId) < 0) {
      return false;
   }
   if (std::optional<StatVector> row = GetStatVector(statId)) {
      row->SetFree();
      WriteStatVector(statId);
      RememberStamp(statId, kUnset);
   }
   return true;
}

TimeStamp StatsStoreImpl::GetLatestTimeStamp()
{
   AssertOpen();
   return _latestTsCol < 0 ? kUnset : StampOf(_latestTsCol);
}

TimeStamp StatsStoreImpl::GetEarliestTimeStamp()
{
   AssertOpen();
   return _earliestTsCol < 0 ? kUnset : StampOf(_earliestTsCol);
}

void StatsStoreImpl::GetTimeStamps(std::vector<TimeStamp>& timeStamps)
{
   AssertOpen();
   timeStamps.clear();
   FirstColumn([&timeStamps](TimeStamp stamp) {
      timeStamps.push_back(stamp);
      return false;
   });
}

void StatsStoreImpl::BeginBatch()
{
   AssertOpen();
   _rows->BeginBatch();
}

void StatsStoreImpl::EndBatch()
{
   AssertOpen();
   _rows->EndBatch();
}

} // namespace

void GetStatsStore(const std::string& fileName, Corvax::Logger* logger,
                   Corvax::Ref<StatsStore>& store)
{
   store = Corvax::MakeRef<StatsStoreImpl>(fileName, logger);
}

} // namespace Metrix
