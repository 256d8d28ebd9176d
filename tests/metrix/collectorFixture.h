#pragma once

#include "metrix/statsDepot.h"
#include "metrix/statsMetadata.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <set>

/// A depot for a collector, with a clock and timers that the test moves.
class CollectorTest : public testing::Test {
protected:
   CollectorTest()
   {
      Metrix::GetStatsDepot(_scratch.Path(), "d", _agent.logger.Get(), 1000, _depot);
      _depot->Create();
      _depot->AddInterval("fine", 20, 180);
      _clock.SetSeconds(1000007);
   }

   std::set<std::string> Names(const std::string& entity)
   {
      std::vector<std::string> names;
      _depot->GetAvailableStatNames(entity, 0, 0, names);
      return {names.begin(), names.end()};
   }
   Metrix::StatVal Raw(const std::string& entity, const std::string& stat)
   {
      Metrix::TimeStamp ts = 0;
      return _depot->GetRawSample(entity, stat, ts);
   }

   const Scratch _scratch;
   FaultyFiles _files;
   FakeAgent _agent;
   ManualClock _clock;
   ManualScheduler _scheduler{_clock};
   Corvax::Ref<Metrix::StatsDepot> _depot;
   const Corvax::Ref<Metrix::StatsMetadata> _metadata = Corvax::MakeRef<Metrix::StatsMetadata>();
};
