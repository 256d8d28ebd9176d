#pragma once

#include "metrix/statTypes.h"

#include <vector>

/// Rollups: what the fine samples of one coarse period are summarised to. The samples are oldest
/// first and may be unset; only valid ones, that is those that are set, count. The result is unset
/// if none is valid.
namespace Metrix {

using RollupFunction = StatVal (*)(const std::vector<StatVal>& samples);

/// Always unset.
StatVal CalculateNop(const std::vector<StatVal>& samples);
/// The sum, which wraps, divided by the number of valid samples, rounded down.
StatVal CalculateAverage(const std::vector<StatVal>& samples);
StatVal CalculateMax(const std::vector<StatVal>& samples);
StatVal CalculateMin(const std::vector<StatVal>& samples);
StatVal CalculateLast(const std::vector<StatVal>& samples);
/// Wraps on overflow.
StatVal CalculateSum(const std::vector<StatVal>& samples);

} // namespace Metrix
