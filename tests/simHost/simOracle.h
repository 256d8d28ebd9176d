#pragma once

#include "metrix/statsDepot.h"
#include "simHost/simActions.h"
#include "tests/simHost/simStatTable.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// Says what a depot must hold after the collector's runs on a simulated host. It knows the time of
/// each run and what was read of each entity, and computes every sample from the host's model.
class SimOracle {
public:
   using StatVal = Metrix::StatVal;
   using TimeStamp = Metrix::TimeStamp;
   using RollupType = Metrix::StatsDepot::RollupType;

   struct Run {
      TimeStamp timeSec;
      TimeStamp readSec;  ///< time of the readings: later if a second passes while the run begins
      bool isFirst;       ///< of a collector that has started: it has no earlier readings
      bool isCut = false; ///< by the end of the process: any of its samples may be missing
   };

   /// What an event changes of an entity's figures: which parts of it are there, and since when.
   struct Change {
      TimeStamp runSec; ///< `readSec` of the first run that sees it
      int64_t timeSec;
      SimHost::SimAction action;
      std::string id;
      uint64_t count;
   };

   /// Before the first run; every VM and pool is read as the options have it at the start.
   SimOracle(const SimHost::SimOptions& options, uint64_t finePeriodSec, bool wideFigures);

   /// Sets whether the following runs read the entity.
   void SetRead(const std::string& entity, bool isRead) { _entities[entity].isRead = isRead; }
   /// For the following runs.
   void Apply(const Change& change);
   /// The entity's stats have been deleted.
   void Forget(const std::string& entity) { _entities[entity].reads.clear(); }
   void AddRun(const Run& run);

   /// For runs known by `timeSec` alone, each of which must be in the depot; the host's uptime,
   /// which must fit all other samples, shows when a run has read the host. Without events every VM
   /// and pool must be there in every run; with events, one absolute stat of each entity shows
   /// whether a run has read it, and `changes` are what they changed. Exception if there were
   /// events and the depot no longer holds all runs.
   static SimOracle FromRuns(Metrix::StatsDepot& depot, const SimHost::SimOptions& options,
                             const std::vector<Run>& runs, const std::vector<Change>& changes,
                             bool wideFigures);

   struct Result {
      size_t stats = 0;
      size_t samples = 0; ///< stored or expected
      size_t differ = 0;
      size_t lost = 0;                ///< of those that differ: none is stored
      std::vector<std::string> texts; ///< of the first differences
   };
   /// Compares all series of all stats that the id map names or that must exist, both ways: for
   /// samples missing, wrong and invented. Of a depot with runs that were cut short only the finest
   /// interval: the others depend on how far these came.
   /// The same holds if samples may be missing up to the first one that a series has stored.
   Result Compare(Metrix::StatsDepot& depot, const std::string& idMapPath,
                  bool onlyEstablished = false) const;

private:
   TimeStamp GetStamp(const Run& run) const { return run.timeSec - run.timeSec % _finePeriodSec; }
   std::optional<StatVal> Read(const std::string& entity, const SimStat& stat, size_t run) const;
   void SetShape(const std::string& entity, const SimShape& shape);
   std::optional<StatVal> ExpectedRaw(const std::string& entity, const SimStat& stat,
                                      size_t run) const;
   std::vector<StatVal> ExpectedInPeriod(const std::string& entity, const SimStat& stat,
                                         TimeStamp end, size_t limit) const;
   std::optional<StatVal> ExpectedRollup(const std::string& entity, const std::string& statName,
                                         const SimStat& stat, RollupType rollup,
                                         TimeStamp end) const;
   /// Nothing when there must be no such sample.
   std::optional<StatVal> Expected(const std::string& entity, const std::string& statName,
                                   RollupType rollup, bool isFinest, TimeStamp stamp) const;
   /// Null if there was none.
   const Run* FindRun(TimeStamp stamp) const;
   TimeStamp GetNextPeriodEnd(TimeStamp timeSec) const;
   /// The stamps of the interval's columns, as many of the newest as it has columns.
   std::set<TimeStamp> GetColumns(const Metrix::StatsDepotInterval& interval, bool isFinest) const;
   void CompareStat(Metrix::StatsDepot& depot, const Metrix::StatsDepotInterval& interval,
                    bool isFinest, const std::string& entity, const std::string& name,
                    bool onlyEstablished, Result& result) const;

   struct Entity {
      SimStatTable stats;
      bool isRead = true;
      bool isVm = false;
      std::shared_ptr<const SimShape> shape = std::make_shared<SimShape>();
      std::map<size_t, std::shared_ptr<const SimShape>> reads; ///< by run: its shape then
   };

   SimHost::SimOptions _options;
   uint64_t _finePeriodSec;
   bool _wideFigures;
   std::map<std::string, Entity> _entities;
   std::vector<Run> _runs;
   std::map<TimeStamp, size_t> _coarsePeriods; ///< end of each, and the run that rolled it up
   TimeStamp _nextRollup = Metrix::kUnset;
};
