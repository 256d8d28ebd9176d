#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

thread_local uint64_t allocations = 0;
thread_local uint64_t failingAllocation = 0; ///< 1: the next one fails; 0: none

} // namespace

// Not inlined, or the compiler sees only one of the pair and warns of a mismatch.
[[gnu::noinline]] void* operator new(size_t sizeBytes)
{
   ++allocations;
   if (failingAllocation > 0 && --failingAllocation == 0) {
      throw std::bad_alloc();
   }
   if (void* const bytes = std::malloc(sizeBytes)) {
      return bytes;
   }
   throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* bytes) noexcept
{
   std::free(bytes);
}
[[gnu::noinline]] void operator delete(void* bytes, size_t) noexcept
{
   std::free(bytes);
}

namespace {

using Metrix::StatsDepot;
using Metrix::TimeStamp;

const std::string kEntity = "an entity of some length";
constexpr int kStats = 1000;
constexpr TimeStamp kStart = 1800000000;
const std::vector<StatsDepot::RollupType> kRollups = {
   StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN};

/// A depot with one interval and stats of three rollups each.
class DepotCostTest : public testing::Test {
protected:
   void Build(int periodSec, int stats = kStats, unsigned columns = 0,
              const Metrix::JournalOptions& options = {})
   {
      _periodSec = static_cast<TimeStamp>(periodSec);
      Metrix::GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 10, _depot, options);
      _depot->Create();
      _depot->AddInterval("RealTime", periodSec,
                          columns > 0 ? columns : 3600U / static_cast<unsigned>(periodSec));
      for (int i = 0; i < stats; ++i) {
         _names.push_back("a stat of some length " + std::to_string(i));
         _depot->CreateStat(kEntity, _names.back(), StatsDepot::STATTYPE_ABSOLUTE, 1, kRollups);
      }
   }
   /// One sample of every stat, or of all but one.
   void AddSamples(size_t leftOut = SIZE_MAX)
   {
      ++_runs;
      for (size_t i = 0; i < _names.size(); ++i) {
         if (i != leftOut) {
            _depot->AddSample(kEntity, _names[i], Now(), Value(i), 0);
         }
      }
   }
   /// As a collection run does it.
   void Collect(size_t leftOut = SIZE_MAX)
   {
      const Corvax::Locker lock(_depot.Get());
      AddSamples(leftOut);
      _depot->Flush();
   }
   void ResetCounts() { _files.calls = _files.bytes = allocations = 0; }
   TimeStamp Now() const { return kStart + _runs * _periodSec; }
   Metrix::StatVal Value(size_t stat) const { return _runs * 1000000 + stat; }

   Metrix::StatVal Read(StatsDepot& depot, size_t stat, TimeStamp ts)
   {
      return depot.GetSample(kEntity, _names[stat], ts, "", StatsDepot::ROLLUP_NONE);
   }
   /// Another depot on the same files has the newest samples.
   void ExpectInFiles()
   {
      Corvax::Ref<StatsDepot> other;
      Metrix::GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 10, other);
      other->LoadReadOnly();
      for (size_t i = 0; i < _names.size(); ++i) {
         ASSERT_EQ(Read(*other, i, Now()), Value(i));
      }
   }

   FaultyFiles _files;
   const Scratch _scratch;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   Corvax::Ref<StatsDepot> _depot;
   std::vector<std::string> _names;
   TimeStamp _periodSec = 0;
   TimeStamp _runs = 0;
};

TEST_F(DepotCostTest, LockedDepotReadsAndWritesRowsInRanges)
{
   Build(20);
   Collect();
   ResetCounts();
   Collect();
   // Each range is read once and written twice: rows across pages get their heads last.
   EXPECT_LE(_files.calls, 35);
   EXPECT_LE(_files.bytes / kStats, 3 * 4 * 1452 + 100);
   EXPECT_LE(allocations, 10);
   ExpectInFiles();
}

TEST_F(DepotCostTest, JournaledDepotWritesAFifteenthOfTheRows)
{
   Build(20, kStats, 0, {300, 1});
   for (int run = 0; run < 20; ++run) {
      Collect();
   }
   ResetCounts();
   Collect();
   EXPECT_LE(_files.calls, 8);
   EXPECT_LE(_files.bytes / kStats, 2 * 4 * 1452 / 15 + 20);
   EXPECT_LE(allocations, 60) << "none a sample";
   ExpectInFiles();
}

TEST_F(DepotCostTest, UnlockedDepotReadsAndWritesEachRowAtOnce)
{
   Build(20);
   Collect();
   ResetCounts();
   AddSamples();
   EXPECT_GE(_files.calls, 2 * kStats + 1) << "a read and a write per row, and one column stamp";
   EXPECT_LE(_files.calls, 3 * kStats) << "and a write more if the row lies across pages";
   ExpectInFiles();
}

TEST_F(DepotCostTest, AFailureInUnlockIsLoggedAndTheNextRunIsStored)
{
   for (const int periodSec : {20, 1}) {
      _names.clear();
      Build(periodSec);
      Collect();
      const int before = _logger->Count("Samples are lost");
      {
         const Corvax::Locker lock(_depot.Get());
         AddSamples();
         _files.failAt = 1;
      }
      EXPECT_EQ(_logger->Count("Samples are lost"), before + 1);
      Collect();
      ExpectInFiles();
   }
}

TEST_F(DepotCostTest, AStatWhoseCreationRanOutOfMemoryCanBeCreatedAgain)
{
   Build(20, 0);
   bool hasFailed = true;
   uint64_t failures = 0;
   for (; hasFailed; failures += hasFailed ? 1 : 0) {
      const std::string entity = kEntity + std::to_string(failures);
      const auto create = [&] {
         _depot->CreateStat(entity, "a stat", StatsDepot::STATTYPE_RATE, 1, kRollups);
      };
      failingAllocation = failures + 1;
      hasFailed = !MessageOf<std::exception>(create).empty();
      failingAllocation = 0;
      ASSERT_NE(_depot->AddSample(entity, "a stat", kStart, 1, 0), hasFailed) << failures;
      if (hasFailed) {
         create();
      }
   }
   EXPECT_GT(failures, 10u);
}

} // namespace
