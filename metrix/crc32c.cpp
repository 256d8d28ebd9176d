#include "metrix/crc32c.h"

#include "metrix/littleEndian.h"

#include <array>

namespace Metrix {

namespace {

constexpr uint32_t kPolynomial = 0x82f63b78; // bits reversed
constexpr size_t kStride = 8;                ///< bytes taken at a time
using Tables = std::array<std::array<uint32_t, 256>, kStride>;

/// Table k has the checksum of a byte that is followed by k zero bytes.
constexpr Tables MakeTables()
{
   Tables tables{};
   for (uint32_t byte = 0; byte < 256; ++byte) {
      uint32_t crc = byte;
      for (int bit = 0; bit < 8; ++bit) {
         crc = crc >> 1 ^ (crc & 1 ? kPolynomial : 0);
      }
      tables[0][byte] = crc;
   }
   for (size_t k = 1; k < kStride; ++k) {
      for (size_t byte = 0; byte < 256; ++byte) {
         const uint32_t before = tables[k - 1][byte];
         tables[k][byte] = before >> 8 ^ tables[0][before & 0xff];
      }
   }
   return tables;
}

constexpr Tables kTables = MakeTables();

#ifdef __x86_64__
/// By the processor's instruction for it.
[[gnu::target("sse4.2")]] uint32_t AddByInstruction(uint32_t crc, std::span<const std::byte> bytes)
{
   uint64_t wide = crc;
   for (; bytes.size() >= kStride; bytes = bytes.subspan(kStride)) {
      wide = __builtin_ia32_crc32di(wide, Decode<uint64_t>(bytes.data()));
   }
   crc = static_cast<uint32_t>(wide);
   for (const std::byte byte : bytes) {
      crc = __builtin_ia32_crc32qi(crc, static_cast<uint8_t>(byte));
   }
   return crc;
}
#endif

uint32_t AddByTables(uint32_t crc, std::span<const std::byte> bytes)
{
   for (; bytes.size() >= kStride; bytes = bytes.subspan(kStride)) {
      const uint64_t word = Decode<uint64_t>(bytes.data()) ^ crc;
      crc = 0;
      for (size_t k = 0; k < kStride; ++k) {
         crc ^= kTables[kStride - 1 - k][word >> (8 * k) & 0xff];
      }
   }
   for (const std::byte byte : bytes) {
      crc = crc >> 8 ^ kTables[0][(crc ^ static_cast<uint32_t>(byte)) & 0xff];
   }
   return crc;
}

} // namespace

uint32_t Crc32c(std::span<const std::byte> bytes)
{
#ifdef __x86_64__
   static const bool hasInstruction = __builtin_cpu_supports("sse4.2") != 0;
   if (hasInstruction) {
      return ~AddByInstruction(UINT32_MAX, bytes);
   }
#endif
   return ~AddByTables(UINT32_MAX, bytes);
}

} // namespace Metrix
