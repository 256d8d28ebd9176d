#include "metrix/statsStoreImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>

namespace Metrix {

using Corvax::FileCreation;
using StoreFormat::StatVector;

namespace {

/// No interval has more, and a damaged header must not cost gigabytes of memory.
constexpr uint32_t kMaxNumSamples = 1U << 20;
constexpr auto kMaxPeriod = static_cast<uint32_t>(INT32_MAX);

} // namespace

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

void StatsStoreImpl::Plan(int samplingPeriod, int numSamples)
{
   SetShape(static_cast<uint32_t>(samplingPeriod), static_cast<uint32_t>(numSamples));
   _fileColumns.assign(_numSamples, kUnset);
   _columns = ColumnRing(_fileColumns);
}

void StatsStoreImpl::SetShape(uint32_t samplingPeriod, uint32_t numSamples)
{
   _samplingPeriod = samplingPeriod;
   _numSamples = numSamples;
   _statVectorPos = StoreFormat::RowsPos(numSamples);
   _rowSize = static_cast<size_t>(StoreFormat::RowSize(numSamples));
}

void StatsStoreImpl::Load(uint32_t access)
{
   const uint64_t size = Corvax::System::GetFactory().GetFileSize(_fileName);
   const std::string badSize = "Invalid file size for StatsStore " + _fileName;
   if (size < StoreFormat::kTimeStampPos) {
      ThrowDamaged(badSize);
   }
   _storeHandle = Corvax::System::GetFactory().NewFileHandle();
   _storeHandle->Open(_fileName, access, FileCreation::OPEN_EXISTING);
   const uint32_t numSamples = ReadUInt32(StoreFormat::kNumSamplesPos);
   const uint32_t samplingPeriod = ReadUInt32(StoreFormat::kSamplingPeriodPos);
   if (size < StoreFormat::RowsPos(numSamples)) {
      ThrowDamaged(badSize);
   }
   if (numSamples < 1 || numSamples > kMaxNumSamples || samplingPeriod < 1 ||
       samplingPeriod > kMaxPeriod) {
      ThrowDamaged("Invalid header in StatsStore " + _fileName);
   }
   SetShape(samplingPeriod, numSamples);
   const uint64_t rows = (size - _statVectorPos) / _rowSize;
   _fileSize = _statVectorPos + rows * _rowSize;
   _numStats = static_cast<uint32_t>(std::min<uint64_t>(rows, UINT32_MAX));
   if ((size - _statVectorPos) % _rowSize != 0) {
      _logger->Log(Corvax::kLogWarning,
                   "StatsStore %1 ends with an incomplete row, which is ignored", _fileName);
   }
   ReadTimeStamps();
   OpenWindow();
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
   _columns = ColumnRing(timeStamps);
   _fileColumns = std::move(timeStamps);
   _writtenStamp = _headerStamp = _columns.GetLatestTimeStamp();
}

void StatsStoreImpl::Flush()
{
   AssertOpen();
   Corvax::Assert(static_cast<bool>(_storeHandle), "the store has its file");
   try {
      _storeHandle->Flush();
   } catch (...) {
      _mustRewriteHeader = true;
      throw;
   }
}

/// The row of a stat is its id; -1 if there is no such row.
int64_t StatsStoreImpl::FindRow(StatId statId) const
{
   return statId < _numStats ? static_cast<int64_t>(statId) : -1;
}

/// Nothing if there is no row, or a free one. Valid until another row is read.
std::optional<StatVector> StatsStoreImpl::GetStatVector(StatId statId)
{
   if (_head && _head->HasTile(statId)) {
      return ComposeRow(statId);
   }
   const int64_t index = FindRow(statId);
   if (index < 0 || !_rows) {
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
   const TimeStamp latest = _columns.GetLatestTimeStamp();
   if (ts == latest) {
      return _columns.GetLatest();
   }
   if (latest == kUnset || ts > latest) {
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
   if (_head) {
      AddHeadColumn(ts);
      return column;
   }
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
   _fileColumns[static_cast<size_t>(column)] = ts;
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
   if (_head) {
      AddHeadSample(statId, column, ts, value);
      return;
   }
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
   if (column < 0 || IsHidden(static_cast<size_t>(column))) {
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
   if (const int count = _head ? _head->Read(statId, range, values) : -1; count >= 0) {
      return count;
   }
   const std::optional<StatVector> row = GetStatVector(statId);
   if (!row) {
      std::ranges::fill(values, kUnset);
      return 0;
   }
   const size_t beforeWrap = _columns.CountBeforeWrap(range);
   const auto isHidden = [&](size_t i) {
      const auto offset = static_cast<size_t>(first);
      return IsHidden(i < beforeWrap ? offset + i : i - beforeWrap);
   };
   row->GetSamples(static_cast<size_t>(first), {values.data(), beforeWrap});
   row->GetSamples(0, {values.data() + beforeWrap, range.count - beforeWrap});
   // Columns newer than the row's last sample hold values from before the ring wrapped.
   const TimeStamp newest = row->GetTimeStamp();
   int count = 0;
   for (size_t i = 0; i < range.count; ++i) {
      values[i] = stamps[i] <= newest && !isHidden(i) ? values[i] : kUnset;
      count += values[i] != kUnset ? 1 : 0;
   }
   return count;
}

TimeStamp StatsStoreImpl::GetLastUpdateTime(StatId statId)
{
   AssertOpen();
   const TimeStamp stamp = _head ? _head->GetStamp(statId) : StoreHead::kUnknown;
   if (stamp != StoreHead::kUnknown) {
      return stamp;
   }
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
      if (_head) {
         _head->SetRow(statId, RowChange::FREED);
         _entries->AddRow(_storeNumber, statId, RowChange::FREED);
         return true;
      }
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
   if (_rows) {
      _rows->BeginBatch();
   }
}

void StatsStoreImpl::EndBatch()
{
   AssertOpen();
   if (_rows) {
      _rows->EndBatch();
   }
}

void GetStatsStore(const std::string& fileName, Corvax::Logger* logger,
                   Corvax::Ref<StatsStore>& store)
{
   store = Corvax::MakeRef<StatsStoreImpl>(fileName, logger);
}

} // namespace Metrix
