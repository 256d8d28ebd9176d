#pragma once

#include <cstdint>

namespace Metrix {

/// A stat's slot in the slot map, its record in the id-map file and its row in every store.
using StatId = uint64_t;
/// Seconds since the epoch.
using TimeStamp = uint64_t;
using StatVal = uint64_t;

/// No value: an unused column, a row that has no sample, a missing sample.
constexpr uint64_t kUnset = ~uint64_t{0};

} // namespace Metrix
