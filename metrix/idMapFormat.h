#pragma once

#include "metrix/littleEndian.h"

#include <string_view>

/// Layout of an id-map file: an array of records, record i for stat id i. docs/formats/idMap.md has
/// the meaning of the fields and an example.
///
///    record:  entity id (256), stat name (256), rollup type (4), stat type (4), scaling factor (4)
///
/// Text is followed by zero bytes up to the end of its field. Integers are signed and
/// little-endian. There is no padding.
namespace Metrix::IdMapFormat {

constexpr size_t kTextFieldSize = 256;
constexpr size_t kMaxTextSize = kTextFieldSize - 1; ///< at least one zero byte ends a text
constexpr size_t kEntityPos = 0;
constexpr size_t kStatNamePos = 256;
constexpr size_t kRollupPos = 512;
constexpr size_t kStatTypePos = 516;
constexpr size_t kScalingFactorPos = 520;
constexpr size_t kRecordSize = 524;

/// Owns no text.
struct Record {
   std::string_view entityId; ///< empty: the record is free
   std::string_view statName;
   int32_t rollup = 0;
   int32_t statType = 0;
   int32_t scalingFactor = 0;
};

/// `out` has kRecordSize zero bytes; both texts have at most kMaxTextSize bytes.
inline void EncodeRecord(const Record& record, std::byte* out)
{
   std::memcpy(out + kEntityPos, record.entityId.data(), record.entityId.size());
   std::memcpy(out + kStatNamePos, record.statName.data(), record.statName.size());
   Encode(static_cast<uint32_t>(record.rollup), out + kRollupPos);
   Encode(static_cast<uint32_t>(record.statType), out + kStatTypePos);
   Encode(static_cast<uint32_t>(record.scalingFactor), out + kScalingFactorPos);
}

/// The texts point into `in`. One without a zero byte has the size of its field.
inline Record DecodeRecord(const std::byte* in)
{
   const auto text = [in](size_t pos) {
      const std::string_view field(reinterpret_cast<const char*>(in + pos), kTextFieldSize);
      return field.substr(0, field.find('\0'));
   };
   const auto number = [in](size_t pos) {
      return static_cast<int32_t>(Decode<uint32_t>(in + pos));
   };
   return {text(kEntityPos), text(kStatNamePos), number(kRollupPos), number(kStatTypePos),
           number(kScalingFactorPos)};
}

/// Makes the record free; its other fields stay.
inline void FreeRecord(std::byte* record)
{
   std::memset(record + kEntityPos, 0, kTextFieldSize);
}

} // namespace Metrix::IdMapFormat
