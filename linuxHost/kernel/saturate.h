#pragma once

#include <cstdint>
#include <limits>

/// Arithmetic that stops at the largest figure instead of wrapping: figures read from a text may
/// have any value.
namespace LinuxHost {

inline uint64_t SaturatingAdd(uint64_t a, uint64_t b)
{
   uint64_t sum = 0;
   return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<uint64_t>::max() : sum;
}

inline uint64_t SaturatingMultiply(uint64_t a, uint64_t b)
{
   uint64_t product = 0;
   return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<uint64_t>::max() : product;
}

/// 0 instead of a negative difference.
inline uint64_t SaturatingSubtract(uint64_t a, uint64_t b)
{
   return a > b ? a - b : 0;
}

/// value * multiplier / divisor without an intermediate overflow. `multiplier` and `divisor` are
/// below 2^32, the divisor is not 0.
inline uint64_t Scale(uint64_t value, uint64_t multiplier, uint64_t divisor)
{
   return SaturatingAdd(SaturatingMultiply(value / divisor, multiplier),
                        value % divisor * multiplier / divisor);
}

} // namespace LinuxHost
