#pragma once

#include "metrix/littleEndian.h"
#include "metrix/statTypes.h"

#include <algorithm>
#include <span>
#include <vector>

/// Layout of a store file; docs/formats/store.md has the meaning of the fields and an example.
///
///    file:  numSamples (4), samplingPeriod (4), a stamp (8) per column, then the rows
///    row:   used (4), timeStamp (8), a sample (8) per column
///
/// Integers are unsigned, little-endian and unaligned. There is no padding.
namespace Metrix::StoreFormat {

constexpr uint64_t kNumSamplesPos = 0;
constexpr uint64_t kSamplingPeriodPos = 4;
constexpr uint64_t kTimeStampPos = 8; ///< of column 0
constexpr uint64_t kTimeStampSize = 8;

// Within a row.
constexpr size_t kRowUsedPos = 0;
constexpr size_t kRowTimeStampPos = 4;
constexpr size_t kRowSamplesPos = 12;
constexpr size_t kSampleSize = 8;

/// Offset of a column's stamp in the file.
constexpr uint64_t TimeStampPos(uint64_t column)
{
   return kTimeStampPos + kTimeStampSize * column;
}

/// Offset of row 0, which is also the size of a file without rows.
constexpr uint64_t RowsPos(uint64_t numSamples)
{
   return TimeStampPos(numSamples);
}

constexpr uint64_t RowSize(uint64_t numSamples)
{
   return kRowSamplesPos + kSampleSize * numSamples;
}

/// Offset of a column's sample within a row.
constexpr size_t SamplePos(size_t column)
{
   return kRowSamplesPos + kSampleSize * column;
}

/// A file without rows, whose columns are all unset.
inline std::vector<std::byte> EncodeEmptyStore(uint32_t numSamples, uint32_t samplingPeriod)
{
   static_assert(kUnset == UINT64_MAX); // hence the fill
   std::vector<std::byte> bytes(static_cast<size_t>(RowsPos(numSamples)), std::byte{0xff});
   Encode(numSamples, &bytes[kNumSamplesPos]);
   Encode(samplingPeriod, &bytes[kSamplingPeriodPos]);
   return bytes;
}

/// A row: a view of its encoded bytes.
class StatVector {
public:
   explicit StatVector(std::byte* bytes) : _bytes(bytes) {}

   bool IsUsed() const { return Decode<uint32_t>(&_bytes[kRowUsedPos]) != 0; }
   void SetFree() { Encode(uint32_t{0}, &_bytes[kRowUsedPos]); }
   TimeStamp GetTimeStamp() const { return Decode<TimeStamp>(&_bytes[kRowTimeStampPos]); }
   void SetTimeStamp(TimeStamp ts) { Encode(ts, &_bytes[kRowTimeStampPos]); }
   StatVal GetSample(size_t column) const { return Decode<StatVal>(&_bytes[SamplePos(column)]); }
   void SetSample(size_t column, StatVal value) { Encode(value, &_bytes[SamplePos(column)]); }

   /// The samples of `values.size()` columns from `firstColumn` on.
   void GetSamples(size_t firstColumn, std::span<StatVal> values) const
   {
      const std::byte* in = &_bytes[SamplePos(firstColumn)];
      for (StatVal& value : values) {
         value = Decode<StatVal>(in);
         in += kSampleSize;
      }
   }

   /// Copies the bytes of another row.
   void Assign(std::span<const std::byte> bytes) { std::ranges::copy(bytes, _bytes); }

   /// Makes it the row of a stat that has no sample yet.
   void Clear(size_t numSamples)
   {
      Encode(uint32_t{1}, &_bytes[kRowUsedPos]);
      SetTimeStamp(kUnset);
      for (size_t column = 0; column < numSamples; ++column) {
         SetSample(column, kUnset);
      }
   }

private:
   std::byte* const _bytes;
};

} // namespace Metrix::StoreFormat
