#include "metrix/sampleInfoCache.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::DateTime;
using Corvax::MakeRef;
using Corvax::Ref;
using SampleInfo = SampleInfoCache::SampleInfo;

/// The latest instant for seconds beyond the range of a date-time.
DateTime ToDateTime(TimeStamp seconds)
{
   constexpr TimeStamp kLatest = INT64_MAX / Corvax::kMicrosecondsPerSecond;
   return seconds > kLatest ? DateTime(INT64_MAX)
                            : DateTime::FromSeconds(static_cast<int64_t>(seconds));
}

Ref<SampleInfoCache::SampleInfos> MakeSampleInfos(int32_t intervalId,
                                                  const std::vector<TimeStamp>& timeStamps)
{
   auto sampleInfos = MakeRef<Plexa::DataArray<const SampleInfo>>();
   sampleInfos->Reserve(timeStamps.size());
   for (const TimeStamp ts : timeStamps) {
      sampleInfos->Append(MakeRef<const SampleInfo>(ToDateTime(ts), intervalId));
   }
   return sampleInfos;
}

} // namespace

Ref<SampleInfoCache::SampleInfos> SampleInfoCache::Get(int32_t intervalId,
                                                       const std::vector<TimeStamp>& timeStamps)
{
   auto found = std::ranges::find_if(_recent, [&](const Columns& columns) {
      return columns.sampleInfos && columns.intervalId == intervalId &&
             columns.timeStamps == timeStamps;
   });
   if (found == _recent.end()) {
      --found;
      *found = {intervalId, timeStamps, MakeSampleInfos(intervalId, timeStamps)};
   }
   std::rotate(_recent.begin(), found, found + 1);
   return _recent.front().sampleInfos;
}

} // namespace Metrix
