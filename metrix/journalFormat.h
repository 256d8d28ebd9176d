#pragma once

#include "metrix/crc32c.h"
#include "metrix/littleEndian.h"
#include "metrix/statTypes.h"

#include <algorithm>
#include <span>
#include <vector>

/// Layout of a journal file: records, each at a multiple of kAlignment. docs/formats/journal.md has
/// the meaning of the fields and an example.
///
///    record:  crc (4), length (4), generation (8), sequence (8), syncedThrough (8), kind (4),
///             zero (4), payload, zero bytes up to the next multiple
///
/// Integers are unsigned and little-endian.
namespace Metrix::JournalFormat {

constexpr uint32_t kVersion = 1;
constexpr size_t kAlignment = 4096; ///< an append never touches a page that was synced
constexpr size_t kMaxRecordSize = size_t{16} << 20;

constexpr size_t kCrcPos = 0;    ///< CRC-32C of the record from kLengthPos on, without the padding
constexpr size_t kLengthPos = 4; ///< bytes from kCrcPos to the payload's end
constexpr size_t kGenerationPos = 8;
constexpr size_t kSequencePos = 16;
constexpr size_t kSyncedThroughPos = 24;
constexpr size_t kKindPos = 32;
constexpr size_t kPayloadPos = 40;

enum RecordKind : uint32_t {
   RECORD_HEADER = 1,       ///< the stores and their columns
   RECORD_SNAPSHOT = 2,     ///< entries: what was pending when the generation began
   RECORD_SNAPSHOT_END = 3, ///< no payload
   RECORD_COMMIT = 4,       ///< entries
};

struct Record {
   uint64_t generation = 0;
   uint64_t sequence = 0;      ///< grows by one from record to record
   uint64_t syncedThrough = 0; ///< last sequence of the generation known to be synced; 0: none
   RecordKind kind = RECORD_HEADER;
   std::span<const std::byte> payload;
};

constexpr size_t AlignUp(size_t size)
{
   return (size + kAlignment - 1) / kAlignment * kAlignment;
}

/// Appends the record with its padding.
inline void EncodeRecord(const Record& record, std::vector<std::byte>& out)
{
   const size_t begin = out.size();
   const size_t length = kPayloadPos + record.payload.size();
   out.resize(begin + AlignUp(length));
   std::byte* const bytes = &out[begin];
   Encode(static_cast<uint32_t>(length), bytes + kLengthPos);
   Encode(record.generation, bytes + kGenerationPos);
   Encode(record.sequence, bytes + kSequencePos);
   Encode(record.syncedThrough, bytes + kSyncedThroughPos);
   Encode(static_cast<uint32_t>(record.kind), bytes + kKindPos);
   if (!record.payload.empty()) {
      std::memcpy(bytes + kPayloadPos, record.payload.data(), record.payload.size());
   }
   Encode(Crc32c({bytes + kLengthPos, length - kLengthPos}), bytes + kCrcPos);
}

/// The generation that a record at the start of the bytes would have; 0 if there are too few.
inline uint64_t PeekGeneration(std::span<const std::byte> bytes)
{
   return bytes.size() < kPayloadPos ? 0 : Decode<uint64_t>(&bytes[kGenerationPos]);
}

/// Decodes the record at the start of the bytes; the payload points into them. Returns its size
/// with the padding, or 0 if there is no whole record.
inline size_t DecodeRecord(std::span<const std::byte> bytes, Record& record)
{
   if (bytes.size() < kPayloadPos) {
      return 0;
   }
   const size_t length = Decode<uint32_t>(&bytes[kLengthPos]);
   if (length < kPayloadPos || length > kMaxRecordSize || length > bytes.size() ||
       Crc32c(bytes.subspan(kLengthPos, length - kLengthPos)) !=
          Decode<uint32_t>(&bytes[kCrcPos])) {
      return 0;
   }
   const size_t size = std::min(AlignUp(length), bytes.size());
   for (size_t i = length; i < size; ++i) {
      if (bytes[i] != std::byte{0}) {
         return 0;
      }
   }
   record.generation = Decode<uint64_t>(&bytes[kGenerationPos]);
   record.sequence = Decode<uint64_t>(&bytes[kSequencePos]);
   record.syncedThrough = Decode<uint64_t>(&bytes[kSyncedThroughPos]);
   record.kind = static_cast<RecordKind>(Decode<uint32_t>(&bytes[kKindPos]));
   record.payload = bytes.subspan(kPayloadPos, length - kPayloadPos);
   return size;
}

/// A store as the header names it.
struct StoreShape {
   uint32_t samplingPeriod = 0;    ///< seconds
   TimeStamp headerStamp = kUnset; ///< newest column that the store's file has for certain
   std::vector<TimeStamp> columns; ///< a stamp per column, newest ones included
};

/// Payload of RECORD_HEADER: version (4), number of stores (4), and for each store samplingPeriod
/// (4), number of columns (4), headerStamp (8), a stamp (8) per column.
inline std::vector<std::byte> EncodeHeader(const std::vector<StoreShape>& stores)
{
   std::vector<std::byte> out;
   const auto put = [&out](auto number) {
      out.resize(out.size() + sizeof number);
      Encode(number, &out[out.size() - sizeof number]);
   };
   put(kVersion);
   put(static_cast<uint32_t>(stores.size()));
   for (const StoreShape& store : stores) {
      put(store.samplingPeriod);
      put(static_cast<uint32_t>(store.columns.size()));
      put(store.headerStamp);
      for (const TimeStamp ts : store.columns) {
         put(ts);
      }
   }
   return out;
}

/// False for another version or a payload that is no header.
inline bool DecodeHeader(std::span<const std::byte> bytes, std::vector<StoreShape>& stores)
{
   size_t pos = 0;
   const auto take = [&]<class T>(T& number) {
      if (bytes.size() - pos < sizeof number) {
         return false;
      }
      number = Decode<T>(&bytes[pos]);
      pos += sizeof number;
      return true;
   };
   uint32_t version = 0;
   uint32_t count = 0;
   if (!take(version) || version != kVersion || !take(count)) {
      return false;
   }
   stores.clear();
   for (uint32_t i = 0; i < count; ++i) {
      StoreShape store;
      uint32_t columns = 0;
      if (!take(store.samplingPeriod) || !take(columns) || !take(store.headerStamp) ||
          columns > (bytes.size() - pos) / sizeof(TimeStamp)) {
         return false;
      }
      store.columns.resize(columns);
      for (TimeStamp& ts : store.columns) {
         take(ts);
      }
      stores.push_back(std::move(store));
   }
   return pos == bytes.size();
}

} // namespace Metrix::JournalFormat
