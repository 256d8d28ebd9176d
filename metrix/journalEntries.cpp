#include "metrix/journalEntries.h"

#include "corvax/exception.h"

#include <algorithm>
#include <string>

namespace Metrix {

namespace {

enum Kind : uint8_t {
   KIND_COLUMN = 1,
   KIND_CELLS = 2,
   KIND_ROW_CLEARED = 3,
   KIND_ROW_FREED = 4,
   KIND_ROW_BASE = 5,
   KIND_ROW_IMAGE = 6,
   KIND_ROWS_DURABLE = 7,
   KIND_STAT = 8,
   KIND_IDS_FREED = 9,
   KIND_IDS_DURABLE = 10,
   KIND_ROW_CELLS = 11,
};

/// Ends the cells of a column: no step from one id to the next is as long.
constexpr uint64_t kEndOfCells = 1;

constexpr size_t kMaxKeptBytes = size_t{256} << 10;
constexpr size_t kMaxNumberSize = 10;
constexpr size_t kCutBytes = size_t{1} << 20;
constexpr size_t kMaxCellsBytes = size_t{1} << 18;
constexpr size_t kMaxIdsInList = size_t{1} << 22;

/// Steps of either sign as small numbers; 1 stays free.
uint64_t ToZigZag(uint64_t step)
{
   const auto value = static_cast<int64_t>(step);
   const uint64_t number = step << 1 ^ static_cast<uint64_t>(value >> 63);
   return number == 0 ? 0 : number + 1;
}

uint64_t FromZigZag(uint64_t number)
{
   const uint64_t plain = number == 0 ? 0 : number - 1;
   return plain >> 1 ^ (0 - (plain & 1));
}

/// Takes numbers and texts from encoded entries.
class Decoder {
public:
   explicit Decoder(std::span<const std::byte> bytes) : _bytes(bytes) {}

   bool IsAtEnd() const { return _pos == _bytes.size(); }

   uint64_t TakeNumber()
   {
      uint64_t number = 0;
      for (unsigned shift = 0; shift < 64; shift += 7) {
         const auto byte = static_cast<uint64_t>(Take(1)[0]);
         number |= (byte & 0x7f) << shift;
         if (byte < 0x80) {
            return number;
         }
      }
      Refuse();
   }

   uint32_t TakeNumber32()
   {
      const uint64_t number = TakeNumber();
      if (number > UINT32_MAX) {
         Refuse();
      }
      return static_cast<uint32_t>(number);
   }

   std::span<const std::byte> TakeBytes() { return Take(TakeNumber()); }

   std::string_view TakeText()
   {
      const std::span<const std::byte> bytes = TakeBytes();
      return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
   }

   std::vector<StatId> TakeIds()
   {
      const uint64_t count = TakeNumber();
      if (count > kMaxIdsInList) {
         Refuse();
      }
      std::vector<StatId> ids;
      StatId last = 0;
      for (uint64_t i = 0; i < count; ++i) {
         last += FromZigZag(TakeNumber());
         ids.push_back(last);
      }
      return ids;
   }

   [[noreturn]] void Refuse() const
   {
      throw Corvax::FileFormatException("the journal has an impossible entry before offset " +
                                        std::to_string(_pos) + " of a record");
   }

private:
   std::span<const std::byte> Take(uint64_t count)
   {
      if (count > _bytes.size() - _pos) {
         Refuse();
      }
      const auto taken = _bytes.subspan(_pos, static_cast<size_t>(count));
      _pos += taken.size();
      return taken;
   }

   const std::span<const std::byte> _bytes;
   size_t _pos = 0;
};

void DecodeCells(Decoder& in, JournalSink& sink)
{
   const uint32_t store = in.TakeNumber32();
   const uint32_t column = in.TakeNumber32();
   StatId id = 0;
   for (uint64_t step = in.TakeNumber(); step != kEndOfCells; step = in.TakeNumber()) {
      id += FromZigZag(step);
      sink.OnCell(store, column, id, in.TakeNumber() - 1);
   }
}

void DecodeRowCells(Decoder& in, JournalSink& sink)
{
   const uint32_t store = in.TakeNumber32();
   const uint32_t column = in.TakeNumber32();
   const StatId id = in.TakeNumber();
   const uint32_t count = in.TakeNumber32();
   for (uint32_t i = 0; i < count; ++i) {
      sink.OnCell(store, column + i, id, in.TakeNumber() - 1);
   }
}

void DecodeRowsDurable(Decoder& in, JournalSink& sink)
{
   const uint32_t store = in.TakeNumber32();
   const StatId first = in.TakeNumber();
   const uint64_t count = in.TakeNumber();
   sink.OnRowsDurable(store, first, count, in.TakeNumber() - 1);
}

void DecodeStat(Decoder& in, JournalSink& sink)
{
   StatEntry stat;
   stat.entityId = in.TakeText();
   stat.statName = in.TakeText();
   stat.statType = static_cast<int32_t>(in.TakeNumber32());
   stat.scalingFactor = static_cast<int32_t>(in.TakeNumber32());
   const uint64_t count = in.TakeNumber();
   for (uint64_t i = 0; i < count; ++i) {
      const StatId id = in.TakeNumber();
      stat.series.push_back({id, static_cast<int32_t>(in.TakeNumber32())});
   }
   sink.OnStat(stat);
}

/// An entry on one row.
void DecodeRow(Kind kind, Decoder& in, JournalSink& sink)
{
   const uint32_t store = in.TakeNumber32();
   const StatId id = in.TakeNumber();
   switch (kind) {
   case KIND_ROW_CLEARED:
      return sink.OnRow(store, id, RowChange::CLEARED);
   case KIND_ROW_FREED:
      return sink.OnRow(store, id, RowChange::FREED);
   case KIND_ROW_BASE:
      return sink.OnRowBase(store, id, in.TakeNumber() - 1);
   default:
      return sink.OnRowImage(store, id, in.TakeBytes());
   }
}

} // namespace

JournalSink::~JournalSink() = default;

void JournalEntries::Clear()
{
   if (_bytes.size() > kMaxKeptBytes) {
      _bytes = {}; // a run takes far less than a snapshot, or than the run that creates all stats
   }
   _size = 0;
   _cuts.clear();
   _inCells = false;
}

void JournalEntries::PutNumber(uint64_t number)
{
   std::byte* out = _bytes.data() + _size;
   for (; number >= 0x80; number >>= 7) {
      *out++ = static_cast<std::byte>(number | 0x80);
   }
   *out++ = static_cast<std::byte>(number);
   _size = static_cast<size_t>(out - _bytes.data());
}

void JournalEntries::PutBytes(std::span<const std::byte> bytes)
{
   std::ranges::copy(bytes, _bytes.begin() + static_cast<ptrdiff_t>(_size));
   _size += bytes.size();
}

/// Room for a whole entry: running out of memory must not leave a part of one.
void JournalEntries::Reserve(size_t size)
{
   if (_bytes.size() - _size < size) {
      _bytes.resize(std::max(2 * _bytes.size(), _size + size));
   }
}

void JournalEntries::PutText(std::string_view text)
{
   PutNumber(text.size());
   const auto* const bytes = reinterpret_cast<const std::byte*>(text.data());
   PutBytes({bytes, text.size()});
}

void JournalEntries::PutIds(const std::vector<StatId>& ids)
{
   PutNumber(ids.size());
   StatId last = 0;
   for (const StatId id : ids) {
      PutNumber(ToZigZag(id - last));
      last = id;
   }
}

void JournalEntries::Begin(uint8_t kind, size_t contentSize)
{
   Reserve(2 * kMaxNumberSize + contentSize);
   EndCells();
   if (_size - (_cuts.empty() ? 0 : _cuts.back()) >= kCutBytes) {
      _cuts.push_back(_size);
   }
   PutNumber(kind);
}

void JournalEntries::EndCells()
{
   if (_inCells) {
      PutNumber(kEndOfCells);
      _inCells = false;
   }
}

void JournalEntries::AddColumn(uint32_t store, TimeStamp ts)
{
   Begin(KIND_COLUMN, 2 * kMaxNumberSize);
   PutNumber(store);
   PutNumber(ts);
}

// Values and stamps are stored plus one, so that an unset one takes a single byte.

void JournalEntries::AddCell(uint32_t store, uint32_t column, StatId id, StatVal value)
{
   if (!_inCells || store != _cellStore || column != _cellColumn ||
       _size - _cellsBegin >= kMaxCellsBytes) {
      Begin(KIND_CELLS, 4 * kMaxNumberSize);
      PutNumber(store);
      PutNumber(column);
      _inCells = true;
      _cellStore = store;
      _cellColumn = column;
      _lastCellId = 0;
      _cellsBegin = _size;
   }
   Reserve(3 * kMaxNumberSize);
   PutNumber(ToZigZag(id - _lastCellId));
   PutNumber(value + 1);
   _lastCellId = id;
}

void JournalEntries::AddRowCells(uint32_t store, uint32_t firstColumn, StatId id,
                                 std::span<const StatVal> values)
{
   Begin(KIND_ROW_CELLS, (4 + values.size()) * kMaxNumberSize);
   PutNumber(store);
   PutNumber(firstColumn);
   PutNumber(id);
   PutNumber(values.size());
   for (const StatVal value : values) {
      PutNumber(value + 1);
   }
}

void JournalEntries::AddRow(uint32_t store, StatId id, RowChange change)
{
   Begin(change == RowChange::CLEARED ? KIND_ROW_CLEARED : KIND_ROW_FREED, 2 * kMaxNumberSize);
   PutNumber(store);
   PutNumber(id);
}

void JournalEntries::AddRowBase(uint32_t store, StatId id, TimeStamp ts)
{
   Begin(KIND_ROW_BASE, 3 * kMaxNumberSize);
   PutNumber(store);
   PutNumber(id);
   PutNumber(ts + 1);
}

void JournalEntries::AddRowImage(uint32_t store, StatId id, std::span<const std::byte> bytes)
{
   Begin(KIND_ROW_IMAGE, 3 * kMaxNumberSize + bytes.size());
   PutNumber(store);
   PutNumber(id);
   PutNumber(bytes.size());
   PutBytes(bytes);
}

void JournalEntries::AddRowsDurable(uint32_t store, StatId first, uint64_t count, TimeStamp ts)
{
   Begin(KIND_ROWS_DURABLE, 4 * kMaxNumberSize);
   PutNumber(store);
   PutNumber(first);
   PutNumber(count);
   PutNumber(ts + 1);
}

void JournalEntries::AddStat(const StatEntry& stat)
{
   Begin(KIND_STAT, (5 + 2 * stat.series.size()) * kMaxNumberSize + stat.entityId.size() +
                       stat.statName.size());
   PutText(stat.entityId);
   PutText(stat.statName);
   PutNumber(static_cast<uint32_t>(stat.statType));
   PutNumber(static_cast<uint32_t>(stat.scalingFactor));
   PutNumber(stat.series.size());
   for (const StatEntry::Series& series : stat.series) {
      PutNumber(series.id);
      PutNumber(static_cast<uint32_t>(series.rollup));
   }
}

void JournalEntries::AddIdsFreed(const std::vector<StatId>& ids)
{
   Begin(KIND_IDS_FREED, (1 + ids.size()) * kMaxNumberSize);
   PutIds(ids);
}

void JournalEntries::AddIdsDurable(const std::vector<StatId>& ids)
{
   Begin(KIND_IDS_DURABLE, (1 + ids.size()) * kMaxNumberSize);
   PutIds(ids);
}

std::vector<std::span<const std::byte>> JournalEntries::GetParts()
{
   Reserve(kMaxNumberSize);
   EndCells();
   std::vector<std::span<const std::byte>> parts;
   size_t begin = 0;
   for (size_t i = 0; i <= _cuts.size(); ++i) {
      const size_t end = i < _cuts.size() ? _cuts[i] : _size;
      parts.emplace_back(_bytes.data() + begin, end - begin);
      begin = end;
   }
   return parts;
}

void DecodeEntries(std::span<const std::byte> bytes, JournalSink& sink)
{
   Decoder in(bytes);
   while (!in.IsAtEnd()) {
      const auto kind = static_cast<Kind>(in.TakeNumber32());
      switch (kind) {
      case KIND_COLUMN: {
         const uint32_t store = in.TakeNumber32();
         sink.OnColumn(store, in.TakeNumber());
         break;
      }
      case KIND_CELLS:
         DecodeCells(in, sink);
         break;
      case KIND_ROW_CELLS:
         DecodeRowCells(in, sink);
         break;
      case KIND_ROW_CLEARED:
      case KIND_ROW_FREED:
      case KIND_ROW_BASE:
      case KIND_ROW_IMAGE:
         DecodeRow(kind, in, sink);
         break;
      case KIND_ROWS_DURABLE:
         DecodeRowsDurable(in, sink);
         break;
      case KIND_STAT:
         DecodeStat(in, sink);
         break;
      case KIND_IDS_FREED:
         sink.OnIdsFreed(in.TakeIds());
         break;
      case KIND_IDS_DURABLE:
         sink.OnIdsDurable(in.TakeIds());
         break;
      default:
         in.Refuse();
      }
   }
}

} // namespace Metrix
