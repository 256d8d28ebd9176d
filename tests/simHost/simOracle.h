#pragma once

#include "metrix/statsDepot.h"
#include "simHost/simOptions.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// What a depot must hold after the collector's runs on a simulated host: knows of each run when it
/// was and what it read, and works out every sample from the model's records on its own.
class SimOracle {
public:
   using StatVal = Metrix::StatVal;
   using TimeStamp = Metrix::TimeStamp;
   using RollupType = Metrix::StatsDepot::RollupType;

   /// What a run reads of an entity; a mask. Host and pools have kCpu alone, for all they have.
   enum Reads : uint8_t { kNothing = 0, kCpu = 1, kMemory = 2, kAll = 3 };

   enum class Kind { GAUGE, GAUGE_AVERAGE, LATEST, GROWTH, RATE, RATE_AVERAGE };
   struct Stat {
      Kind kind;
      uint8_t part;
      StatVal most; ///< 0 for none
      std::function<uint64_t(int64_t timeSec)> read;
   };

   /// Before the first run; every machine and pool is read as the options have it at the start.
   SimOracle(const SimHost::SimOptions& options, uint64_t finePeriodSec);

   /// What the runs from now on read of an entity.
   void SetReads(const std::string& entity, uint8_t reads) { _reading[entity] = reads; }
   /// The entity's stats have been deleted.
   void Forget(const std::string& entity) { _reads.erase(entity); }
   /// `isFirst`: of a collector that starts, so that there are no readings before it.
   void AddRun(TimeStamp timeSec, bool isFirst);

   /// The oracle for a depot whose runs nobody noted: their times are those of the host's uptime,
   /// and where there were events, one absolute figure of each group says whether an entity was
   /// read. Without events every machine and pool must be there in every run. Where the finest
   /// interval holds no longer all runs, that interval alone is judged.
   static SimOracle FromDepot(Metrix::StatsDepot& depot, const SimHost::SimOptions& options);

   struct Result {
      size_t stats = 0;
      size_t samples = 0; ///< that are stored or expected
      size_t differ = 0;
      std::vector<std::string> texts; ///< of the first differences
   };
   /// All stats that the id map names or that must be there, all their series, both ways.
   Result Compare(Metrix::StatsDepot& depot, const std::string& idMapPath) const;

private:
   struct Run {
      TimeStamp stamp;
      TimeStamp time;
      bool isFirst;
   };

   static bool Keeps(Kind kind, RollupType rollup);
   uint8_t GetReads(const std::string& entity, size_t run) const;
   std::optional<StatVal> ExpectedRaw(const std::string& entity, const Stat& stat,
                                      size_t run) const;
   std::optional<StatVal> ExpectedRollup(const std::string& entity, const std::string& statName,
                                         const Stat& stat, RollupType rollup, TimeStamp end) const;
   /// Unset when there must be no such sample.
   std::optional<StatVal> Expected(const std::string& entity, const std::string& statName,
                                   RollupType rollup, bool isFinest, TimeStamp stamp) const;
   TimeStamp NextWindow(TimeStamp timeSec) const;
   void CompareStat(Metrix::StatsDepot& depot, const Metrix::StatsDepotInterval& interval,
                    bool isFinest, const std::string& entity, const std::string& name,
                    Result& result) const;

   SimHost::SimOptions _options;
   uint64_t _period;
   std::map<std::string, std::map<std::string, Stat>> _stats;
   std::map<std::string, uint8_t> _reading;
   std::map<std::string, std::map<size_t, uint8_t>> _reads; ///< by run
   std::vector<Run> _runs;
   std::map<TimeStamp, size_t> _windows;  ///< end of each, and the run that rolled it up
   std::optional<TimeStamp> _firstColumn; ///< of the finest interval, not judged
   TimeStamp _nextRollup = Metrix::kUnset;
};
