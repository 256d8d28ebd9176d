#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// Integers in the depot's files: little-endian and unaligned.
namespace Metrix {

/// Converts between the byte order of this machine and that of the files.
template <class T>
T ToLittleEndian(T value)
{
   if constexpr (std::endian::native == std::endian::little) {
      return value;
   }
   T reversed = 0;
   for (size_t i = 0; i < sizeof(T); ++i) {
      reversed = static_cast<T>(reversed << 8 | (value >> (8 * i) & 0xff));
   }
   return reversed;
}

template <class T>
void Encode(T value, std::byte* out)
{
   const T stored = ToLittleEndian(value);
   std::memcpy(out, &stored, sizeof stored);
}

template <class T>
T Decode(const std::byte* in)
{
   T stored;
   std::memcpy(&stored, in, sizeof stored);
   return ToLittleEndian(stored);
}

} // namespace Metrix
