#include "metrix/statsStore.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "metrix/columnRing.h"
#include "metrix/rowWindow.h"
#include "metrix/storeFormat.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::FileCreation;
using StoreFormat::StatVector;

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
   void AssertOpen() const { Assert(_rows != nullptr, "the store is created or loaded"); }
   [[noreturn]] void ThrowDamaged(const std::string& message);
   uint32_t ReadUInt32(uint64_t pos);
   void ReadTimeStamps();

   int64_t FindRow(StatId statId) const;
   std::optional<StatVector> GetStatVector(StatId statId);
   StatVector AllocStatVector(StatId statId);
   void WriteStatVector(StatId statId);

   int32_t FindColumn(TimeStamp ts) const { return _columns.FindColumn(ts); }
   int32_t FindClosestColumn(TimeStamp ts) const { return _columns.FindClosestColumn(ts); }
   int32_t ChooseColumn(TimeStamp ts);
   int32_t AddColumn(TimeStamp ts);
   void WriteTimeStamp(int32_t column, TimeStamp ts);
   void InvalidateGap(StatVector& row, int32_t chosen) const;

   const std::string _fileName;
   Corvax::Ref<Corvax::FileHandle> _storeHandle;
   uint32_t _numStats = 0; ///< rows in the file, with new ones that are still dirty
   uint32_t _numSamples = 0;
   uint32_t _samplingPeriod = 0;
   ColumnRing _columns;
   uint64_t _statVectorPos = 0; ///< file offset of row 0
   size_t _rowSize = 0;
   std::unique_ptr<RowWindow> _rows;
   const Corvax::Ref<Corvax::Logger> _logger;
};

void StatsStoreImpl::Create(int samplingPeriod, int numSamples)
{
   if (samplingPeriod < 1 || numSamples < 1) {
      throw Corvax::InvalidArgumentException();
   }
   const std::vector<std::byte> bytes = StoreFormat::EncodeEmptyStore(
      static_cast<uint32_t>(numSamples), static_cast<uint32_t>(samplingPeriod));
   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(_fileName, Corvax::FILE_WRITE, FileCreation::CREATE_ALWAYS);
   file->WriteAll(bytes.data(), bytes.size());
   file->Flush();
   file->Close();
   Load();
}

void StatsStoreImpl::Load()
{
   const uint64_t size = Corvax::System::GetFactory().GetFileSize(_fileName);
   const std::string badSize = "Invalid file size for StatsStore " + _fileName;
   if (size < StoreFormat::kTimeStampPos) {
      ThrowDamaged(badSize);
   }
   _storeHandle = Corvax::System::GetFactory().NewFileHandle();
   _storeHandle->Open(_fileName, Corvax::FILE_READ_WRITE, FileCreation::OPEN_EXISTING);
   _numSamples = ReadUInt32(StoreFormat::kNumSamplesPos);
   _samplingPeriod = ReadUInt32(StoreFormat::kSamplingPeriodPos);
   _statVectorPos = StoreFormat::RowsPos(_numSamples);
   _rowSize = static_cast<size_t>(StoreFormat::RowSize(_numSamples));
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
      _logger->Log(Corvax::kLogWarning,
                   "StatsStore %1 ends with an incomplete row, which is ignored", _fileName);
   }
   ReadTimeStamps();
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
   std::vector<std::byte> bytes(_numSamples * StoreFormat::kTimeStampSize);
   _storeHandle->Seek(StoreFormat::kTimeStampPos);
   if (_storeHandle->Read(bytes.data(), bytes.size()) < bytes.size()) {
      const std::string message = "Unable to read timestamps from StatsStore " + _fileName;
      _logger->Log(Corvax::kLogError, "%1", message);
      throw Corvax::Exception(message);
   }
   std::vector<TimeStamp> timeStamps(_numSamples);
   for (size_t column = 0; column < timeStamps.size(); ++column) {
      timeStamps[column] = Decode<TimeStamp>(&bytes[column * StoreFormat::kTimeStampSize]);
   }
   _columns = ColumnRing(std::move(timeStamps));
}

void StatsStoreImpl::Flush()
{
   AssertOpen();
   _storeHandle->Flush();
}

/// The row of a stat is its id; -1 if there is no such row.
int64_t StatsStoreImpl::FindRow(StatId statId) const
{
   return statId < _numStats ? static_cast<int64_t>(statId) : -1;
}

/// Nothing if there is no row, or a free one. Valid until another row is read.
std::optional<StatVector> StatsStoreImpl::GetStatVector(StatId statId)
{
   const int64_t index = FindRow(statId);
   if (index < 0) {
      return std::nullopt;
   }
   const StatVector row(_rows->Get(static_cast<uint64_t>(index)));
   return row.IsUsed() ? std::optional(row) : std::nullopt;
}

/// An empty row for the stat, in memory until WriteStatVector.
StatVector StatsStoreImpl::AllocStatVector(StatId statId)
{
   StatVector row(_rows->Get(statId));
   row.Clear(_numSamples);
   _numStats = std::max(_numStats, static_cast<uint32_t>(statId) + 1);
   return row;
}

void StatsStoreImpl::WriteStatVector(StatId statId)
{
   _rows->MarkDirty(statId);
}

/// The column for a sample: the one with its stamp, or a new latest one. A column cannot be
/// inserted between others.
int32_t StatsStoreImpl::ChooseColumn(TimeStamp ts)
{
   if (_columns.GetLatest() < 0 || ts > _columns.GetLatestTimeStamp()) {
      return AddColumn(ts);
   }
   const int32_t column = FindColumn(ts);
   if (column < 0) {
      _logger->Log(Corvax::kLogError, "");
      throw Corvax::InvalidArgumentException();
   }
   return column;
}

/// The rows keep their old samples in the column. They stay hidden, because reading compares the
/// column's stamp with the row's and InvalidateGap unsets what would become visible.
int32_t StatsStoreImpl::AddColumn(TimeStamp ts)
{
   const int32_t column = _columns.GetColumnToAdd();
   WriteTimeStamp(column, ts); // first: if it fails, nothing has changed
   _columns.AddColumn(ts);
   return column;
}

void StatsStoreImpl::WriteTimeStamp(int32_t column, TimeStamp ts)
{
   std::byte bytes[StoreFormat::kTimeStampSize];
   Encode(ts, bytes);
   _storeHandle->Seek(StoreFormat::TimeStampPos(static_cast<uint64_t>(column)));
   _storeHandle->WriteAll(bytes, sizeof bytes);
}

/// Unsets the row's samples in the columns after its last sample and before `chosen`: they are left
/// from before the ring wrapped, and would become visible with the row's new stamp. If `chosen` is
/// not newer than the last sample, the walk to it goes around the ring; on purpose.
void StatsStoreImpl::InvalidateGap(StatVector& row, int32_t chosen) const
{
   const TimeStamp previous = _columns.GetTimeStamp(_columns.GetPrevious(chosen));
   if (previous == kUnset || row.GetTimeStamp() == kUnset || row.GetTimeStamp() == previous) {
      return;
   }
   const int32_t last = FindColumn(row.GetTimeStamp());
   for (int32_t column = _columns.GetNext(last < 0 ? chosen : last); column != chosen;
        column = _columns.GetNext(column)) {
      row.SetSample(static_cast<size_t>(column), kUnset);
   }
}

void StatsStoreImpl::AddSample(StatId statId, TimeStamp ts, StatVal value)
{
   AssertOpen();
   if (ts == kUnset || statId >= UINT32_MAX) {
      throw Corvax::InvalidArgumentException();
   }
   const int32_t column = ChooseColumn(ts);
   std::optional<StatVector> known = GetStatVector(statId);
   StatVector row = known ? *known : AllocStatVector(statId);
   InvalidateGap(row, column);
   row.SetSample(static_cast<size_t>(column), value);
   row.SetTimeStamp(ts);
   WriteStatVector(statId);
}

StatVal StatsStoreImpl::GetSample(StatId statId, TimeStamp ts)
{
   AssertOpen();
   const int32_t column = FindColumn(ts);
   if (column < 0) {
      return kUnset;
   }
   const std::optional<StatVector> row = GetStatVector(statId);
   // Columns newer than the row's last sample hold values from before the ring wrapped.
   return row && row->GetTimeStamp() >= ts ? row->GetSample(static_cast<size_t>(column)) : kUnset;
}

int StatsStoreImpl::GetSamples(StatId statId, TimeStamp begin, TimeStamp end,
                               std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps)
{
   AssertOpen();
   const int32_t first = begin == kUnset ? _columns.GetEarliest() : FindClosestColumn(begin);
   const ColumnRing::Range range = _columns.GetRange(first, end);
   std::vector<TimeStamp> ownStamps;
   std::vector<TimeStamp>& stamps = timeStamps ? *timeStamps : ownStamps;
   _columns.GetTimeStamps(range, stamps);
   values.resize(range.count);
   if (range.count == 0) {
      return 0;
   }
   const std::optional<StatVector> row = GetStatVector(statId);
   if (!row) {
      std::ranges::fill(values, kUnset);
      return 0;
   }
   const size_t beforeWrap = _columns.CountBeforeWrap(range);
   row->GetSamples(static_cast<size_t>(first), {values.data(), beforeWrap});
   row->GetSamples(0, {values.data() + beforeWrap, range.count - beforeWrap});
   // Columns newer than the row's last sample hold values from before the ring wrapped.
   const TimeStamp newest = row->GetTimeStamp();
   int count = 0;
   for (size_t i = 0; i < range.count; ++i) {
      values[i] = stamps[i] <= newest ? values[i] : kUnset;
      count += values[i] != kUnset ? 1 : 0;
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
   }
   return true;
}

TimeStamp StatsStoreImpl::GetLatestTimeStamp()
{
   AssertOpen();
   return _columns.GetLatestTimeStamp();
}

TimeStamp StatsStoreImpl::GetEarliestTimeStamp()
{
   AssertOpen();
   return _columns.GetEarliestTimeStamp();
}

void StatsStoreImpl::GetTimeStamps(std::vector<TimeStamp>& timeStamps)
{
   AssertOpen();
   _columns.GetTimeStamps(_columns.GetRange(_columns.GetEarliest(), kUnset), timeStamps);
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
