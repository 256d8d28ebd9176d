#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

thread_local uint64_t allocations = 0;

} // namespace

void* operator new(size_t sizeBytes)
{
   ++allocations;
   if (void* const bytes = std::malloc(sizeBytes)) {
      return bytes;
   }
   throw std::bad_alloc();
}
void operator delete(void* bytes) noexcept
{
   std::free(bytes);
}
void operator delete(void* bytes, size_t) noexcept
{
   std::free(bytes);
}

namespace {

using Metrix::StatsDepot;
using Metrix::TimeStamp;

const std::string kEntity = "an entity of some length";
constexpr int kStats = 1000;
constexpr TimeStamp kStart = 1800000000;

/// A depot with stats of three rollups each, under an interval of so many seconds.
class DepotCostTest : public testing::Test {
protected:
   void Make(int periodSec, int stats = kStats, unsigned columns = 0)
   {
      _periodSec = static_cast<TimeStamp>(periodSec);
      Metrix::GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 10, _depot);
      _depot->Create();
      _depot->AddInterval("RealTime", periodSec,
                          columns > 0 ? columns : 3600U / static_cast<unsigned>(periodSec));
      for (int i = 0; i < stats; ++i) {
         _names.push_back("a stat of some length " + std::to_string(i));
         _depot->CreateStat(
            kEntity, _names.back(), StatsDepot::STATTYPE_ABSOLUTE, 1,
            {StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN});
      }
   }
   /// One sample of every stat, as a collection records them.
   void Pass(bool isLocked = true)
   {
      ++_passes;
      if (isLocked) {
         _depot->Lock();
      }
      for (size_t i = 0; i < _names.size(); ++i) {
         _depot->AddSample(kEntity, _names[i], Now(), Value(i), 0);
      }
   }
   void EndPass()
   {
      _depot->Flush();
      _depot->Unlock();
   }
   TimeStamp Now() const { return kStart + _passes * _periodSec; }
   Metrix::StatVal Value(size_t stat) const { return _passes * 1000000 + stat; }

   /// The newest samples as another depot on the same files finds them.
   void ExpectInFiles()
   {
      Corvax::Ref<StatsDepot> other;
      Metrix::GetStatsDepot(_scratch.Path(), "d", _logger.Get(), 10, other);
      other->Load();
      for (size_t i = 0; i < _names.size(); ++i) {
         ASSERT_EQ(other->GetSample(kEntity, _names[i], Now(), "", StatsDepot::ROLLUP_NONE),
                   Value(i));
      }
   }

   FaultyFiles _files;
   const Scratch _scratch;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   Corvax::Ref<StatsDepot> _depot;
   std::vector<std::string> _names;
   TimeStamp _periodSec = 0;
   TimeStamp _passes = 0;
};

TEST_F(DepotCostTest, ALockedDepotMovesRunsOfRowsAndHoldsNothingBackBeyondTheLock)
{
   Make(20);
   Pass();
   EndPass();
   _files.calls = _files.bytes = 0;
   allocations = 0;
   Pass();
   _depot->Flush();
   EXPECT_LE(_files.calls, 25);
   EXPECT_LE(_files.bytes / kStats, 2 * 4 * 1452 + 100);
   EXPECT_LE(allocations, 10);
   _depot->Unlock();
   ExpectInFiles();

   _files.calls = 0;
   Pass(false);
   EXPECT_EQ(_files.calls, 2 * kStats + 1) << "alone, a row read and written, and the column once";
   ExpectInFiles();

   Pass();
   _depot->Unlock(); // Flush was forgotten
   ExpectInFiles();
}

TEST_F(DepotCostTest, SamplesOfLongRowsGoOutAlone)
{
   Make(1);
   Pass(); // learns the rows' stamps
   EndPass();
   _files.calls = _files.bytes = 0;
   Pass();
   EndPass();
   EXPECT_LE(_files.calls, 10);
   EXPECT_LE(_files.bytes / kStats, 17);
   ExpectInFiles();
   ++_passes; // a run was missed: what the column holds must go
   Pass();
   EndPass();
   ExpectInFiles();
   EXPECT_EQ(_depot->GetSample(kEntity, _names[7], Now() - 1, "", StatsDepot::ROLLUP_NONE),
             Metrix::kUnset);
}

TEST_F(DepotCostTest, WhatCannotBeWrittenIsToldAndTheNextPassGoesOn)
{
   for (const int periodSec : {20, 1}) {
      _names.clear();
      Make(periodSec);
      Pass();
      EndPass();
      Pass();
      _files.failAt = 1;
      EXPECT_THROW(_depot->Flush(), Corvax::Exception);
      _depot->Unlock();
      Pass();
      _files.failAt = 1;
      const int before = _logger->Count("Samples are lost");
      _depot->Unlock();
      EXPECT_EQ(_logger->Count("Samples are lost"), before + 1);
      Pass();
      EndPass();
      ExpectInFiles();
   }
}

/// A column is used again after 600 passes; what it held then must not come back for a sample that
/// was lost.
TEST_F(DepotCostTest, ALostSampleOfALongRowShowsNothingOfAnEarlierRound)
{
   constexpr unsigned kColumns = 600;
   Make(1, 20, kColumns);
   while (_passes < kColumns + 5) {
      Pass();
      EndPass();
   }
   Pass();
   _files.failAt = 1;
   EXPECT_THROW(_depot->Flush(), Corvax::Exception);
   _depot->Unlock();
   const TimeStamp lost = Now();
   for (int i = 0; i < 2; ++i) {
      Pass();
      EndPass();
   }
   ExpectInFiles();
   for (const std::string& name : _names) {
      EXPECT_EQ(_depot->GetSample(kEntity, name, lost, "", StatsDepot::ROLLUP_NONE),
                Metrix::kUnset);
   }
}

} // namespace
