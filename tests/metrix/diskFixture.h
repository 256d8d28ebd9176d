#pragma once

#include "metrix/statsDepot.h"
#include "tests/fakes/diskModel.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/quietLogger.h"
#include "tests/fakes/seed.h"

#include <gtest/gtest.h>

namespace Metrix {

/// A depot on a disk in memory. The parameter has its `journal`.
template <class Param>
class DiskTest : public testing::TestWithParam<Param> {
protected:
   uint64_t Below(uint64_t limit) { return _random() % limit; }

   /// A disk with the depot's directory.
   static Disk NewDisk(size_t grain)
   {
      Disk disk(grain);
      disk.Apply({.kind = Disk::Operation::DIRECTORY, .path = "/depot"});
      disk.Apply({.kind = Disk::Operation::SYNC_DIRECTORY});
      return disk;
   }

   Corvax::Ref<StatsDepot> New()
   {
      Corvax::Ref<StatsDepot> depot;
      GetStatsDepot("/depot/", "d", _logger.Get(), 1000000, depot, this->GetParam().journal);
      return depot;
   }

   /// Both clocks after a run at that time.
   void Advance(TimeStamp now)
   {
      _clock.SetSeconds(static_cast<int64_t>(now));
      _clock.monotonicUs += 10 * Corvax::kMicrosecondsPerSecond;
   }

   std::mt19937_64 _random{NewSeed()};
   const Corvax::Ref<QuietLogger> _logger = Corvax::MakeRef<QuietLogger>();
   ManualClock _clock;
};

} // namespace Metrix
