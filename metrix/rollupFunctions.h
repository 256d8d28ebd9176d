#pragma once

#include "metrix/statTypes.h"

#include <vector>

/// Rollups: each function summarises the fine samples of one coarse period, oldest first. Unset
/// samples are ignored; if all are unset, so is the result.
namespace Metrix {

using RollupFunction = StatVal (*)(const std::vector<StatVal>& samples);

/// Always unset.
StatVal CalculateNop(const std::vector<StatVal>& samples);
/// The sum, which wraps, divided by the number of samples that are set, rounded down.
StatVal CalculateAverage(const std::vector<StatVal>& samples);
StatVal CalculateMax(const std::vector<StatVal>& samples);
StatVal CalculateMin(const std::vector<StatVal>& samples);
StatVal CalculateLast(const std::vector<StatVal>& samples);
/// Wraps on overflow.
StatVal CalculateSum(const std::vector<StatVal>& samples);

} // namespace Metrix
