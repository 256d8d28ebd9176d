#pragma once

#include <cstddef>
#include <cstdint>

/// Integers as the depot's files hold them: little-endian, unaligned.
namespace Metrix {

template <class T>
void Encode(T value, std::byte* out)
{
   for (size_t i = 0; i < sizeof(T); ++i) {
      out[i] = static_cast<std::byte>(value >> (8 * i));
   }
}

template <class T>
T Decode(const std::byte* in)
{
   T value = 0;
   for (size_t i = 0; i < sizeof(T); ++i) {
      value = static_cast<T>(value | (static_cast<T>(in[i]) << (8 * i)));
   }
   return value;
}

} // namespace Metrix
