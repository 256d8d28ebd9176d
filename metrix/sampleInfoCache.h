#pragma once

#include "metrix/statTypes.h"
#include "quen/performanceManager.h"

#include <array>
#include <cstdint>
#include <vector>

namespace Metrix {

/// The sample information of series, shared by all answers with the same columns: stats are sampled
/// together, and most clients ask for the same time ranges. Keeps the arrays that were used last.
///
/// Locking: none; used under the depot's lock. The arrays never change and need no lock.
class SampleInfoCache {
public:
   using SampleInfo = Quen::PerformanceManager::SampleInfo;
   using SampleInfos = const Plexa::DataArray<const SampleInfo>;

   /// One entry per time stamp. `intervalId` is the sampling period in seconds.
   Corvax::Ref<SampleInfos> Get(int32_t intervalId, const std::vector<TimeStamp>& timeStamps);

private:
   struct Columns {
      int32_t intervalId = 0;
      std::vector<TimeStamp> timeStamps;
      Corvax::Ref<SampleInfos> sampleInfos; ///< null: not in use
   };

   std::array<Columns, 4> _recent; ///< the latest first; 36 hours of columns take about 35 KB
};

} // namespace Metrix
