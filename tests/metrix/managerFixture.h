#pragma once

#include "metrix/performanceManagerImpl.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

/// A performance manager with the mock-up collector, on files in a directory of its own.
class ManagerTest : public testing::Test {
protected:
   ManagerTest()
   {
      _agent.config->Set("plugins/metrix/depotDir", _scratch.Path());
      _agent.config->Set("plugins/metrix/enableMockup", "true");
   }

   void NewManager()
   {
      _manager = Corvax::MakeRef<Metrix::PerformanceManagerImpl>("ha-perfmgr", _agent.logger.Get());
   }
   /// The manager's depot, without the manager: it has the depot's lock.
   Corvax::Ref<Metrix::StatsDepot> TakeDepot()
   {
      _manager = nullptr;
      Corvax::Ref<Metrix::StatsDepot> depot;
      GetStatsDepot(_scratch.Path(), "hostAgentStats", _agent.logger.Get(), 1000, depot);
      depot->Load();
      return depot;
   }
   /// Adds a reading of a stat, which is created if it does not exist.
   static void Add(Metrix::StatsDepot& depot, const std::string& entity, const std::string& stat,
                   Metrix::TimeStamp ts, Metrix::StatVal value,
                   const std::vector<Metrix::StatsDepot::RollupType>& rollups = {},
                   Metrix::StatsDepot::StatType type = Metrix::StatsDepot::STATTYPE_ABSOLUTE)
   {
      if (!depot.AddSample(entity, stat, ts, value, 0)) {
         depot.CreateStat(entity, stat, type, 1, rollups);
         depot.AddSample(entity, stat, ts, value, 0);
      }
   }
   /// Lets the manager collect.
   void RunCollection(int runs)
   {
      _manager->StartStatsCollection();
      for (; runs > 0; --runs) {
         _scheduler.RunNext();
      }
      _manager->StopStatsCollection();
   }

   const Scratch _scratch;
   FakeAgent _agent;
   ManualClock _clock;
   ManualScheduler _scheduler{_clock};
   Corvax::Ref<Metrix::PerformanceManagerImpl> _manager;
};
