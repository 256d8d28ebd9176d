#pragma once

#include "corvax/lockable.h"
#include "corvax/logger.h"
#include "metrix/statTypes.h"

#include <functional>
#include <string>
#include <vector>

namespace Metrix {

/// The public description of an interval.
struct StatsDepotInterval : Corvax::ObjectImpl {
   StatsDepotInterval(int period, int samples, std::string intervalName)
      : samplingPeriod(period), numSamples(samples), name(std::move(intervalName))
   {
   }

   const int samplingPeriod; ///< seconds
   const int numSamples;
   const std::string name;
};

/// How a depot keeps its newest samples: a journal makes them durable, and the stores get them
/// later, many at a time.
struct JournalOptions {
   /// How long samples of the finest interval stay in memory and journal before their rows are
   /// written; those of the coarser ones stay twelve times as long. Both less where the ring or the
   /// memory for it is smaller. 0: no journal, every write goes straight to the files.
   int checkpointSec = 0;
   /// After unlocking, the journal is synced if its last sync is at least this many seconds ago. 0:
   /// only where the order of writes asks for it, as it does once per column.
   int syncSec = 0;
};

/// All samples of a host: a directory with a description of the intervals, an id map of the stats
/// and one store file per interval. Samples arrive in the finest interval and are rolled up into
/// the coarser ones.
///
/// Locking: the operations take no lock; callers lock the depot around a call or a group of calls.
/// A collector's lock, if held too, is taken first. While the depot is locked, changes may be in
/// memory alone; unlocking writes them, and syncs the journal without the lock.
/// Errors: InvalidArgumentException ("Invalid argument"), FileFormatException for damaged files,
/// PlatformException if the file system fails, AssertionException for every operation other than
/// Flush that is called before Create or Load.
class StatsDepot : public virtual Corvax::LockableObject {
public:
   enum StatType : int32_t {
      STATTYPE_ABSOLUTE = 0, ///< the value is the reading
      STATTYPE_DELTA = 1,    ///< the value is the growth since the last reading
      STATTYPE_RATE = 2,     ///< that growth per second
   };

   enum RollupType : int32_t {
      ROLLUP_NONE = 0, ///< the raw series
      ROLLUP_AVERAGE = 1,
      ROLLUP_MAX = 2,
      ROLLUP_MIN = 3,
      ROLLUP_LAST = 4,
      ROLLUP_SUM = 5,
   };

   /// Creates a depot without intervals. One that exists in the directory is overwritten.
   virtual void Create() = 0;
   /// Opens an existing depot and changes none of its files. A store file that cannot be used is
   /// set aside and recreated, empty, with the first change.
   virtual void Load() = 0;
   /// Opens an existing depot for reading, also beside the process that writes it. It shows the
   /// columns of that moment; where the writer reuses one later, samples may be newer than its
   /// stamp. Every operation that changes the depot is then an AssertionException.
   virtual void LoadReadOnly() = 0;
   /// Writes the changes since the depot was locked. Throws if a write fails; without a journal the
   /// samples in it are lost, with one they are written again with the next changes. Whoever
   /// recorded samples calls this before unlocking, because a failure in Unlock is only logged.
   virtual void Flush() = 0;

   /// Adds an interval and creates its store. Intervals are added finest first, each period a
   /// multiple of the one before. "Invalid argument", with no file touched, for any other period, a
   /// number of samples below 1 or above 2^20, or a name that is empty or taken.
   virtual void AddInterval(const std::string& name, int samplingPeriod,
                            unsigned int numSamples) = 0;
   /// Appends all intervals, finest first.
   virtual void GetIntervals(Corvax::RefVector<StatsDepotInterval>& intervals) = 0;

   /// Registers a stat, which must not exist, with its raw series and one series per rollup. Entity
   /// id and stat name have 1 to 255 bytes.
   ///
   /// After a failure the stat is not registered, and its records in the id map are cleared. If
   /// that fails too, it is logged, and a depot that is loaded later may find some of them. A stat
   /// that existed before the call stays as it was.
   virtual void CreateStat(const std::string& entityId, const std::string& statName, StatType type,
                           int scalingFactor, const std::vector<RollupType>& rollups) = 0;

   /// Records a reading taken at `ts`: stores its value, capped at `maxVal` unless that is 0, in
   /// the finest interval. Also rolls up and purges, about once per period of the next interval.
   /// False, with nothing done, if the stat does not exist.
   virtual bool AddSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                          StatVal value, StatVal maxVal) = 0;

   /// The sample stamped exactly `ts`; unset if there is none. An empty interval name means the
   /// finest interval; an unknown name is an "Invalid argument".
   virtual StatVal GetSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                             const std::string& intervalName, RollupType rollup) = 0;

   /// Replaces `values` (and `timeStamps`, unless null) by one entry for each column with
   /// begin <= stamp <= end, oldest first; a missing sample is unset. An unset `begin` means the
   /// oldest column. Returns the number of valid values. For an unknown stat or rollup it returns 0
   /// and leaves the vectors alone.
   virtual int GetSamples(const std::string& entityId, const std::string& statName, TimeStamp begin,
                          TimeStamp end, std::vector<StatVal>& values,
                          std::vector<TimeStamp>* timeStamps, const std::string& intervalName,
                          RollupType rollup) = 0;

   /// The last reading and its time; both unset if there was none since the depot was opened.
   virtual StatVal GetRawSample(const std::string& entityId, const std::string& statName,
                                TimeStamp& ts) = 0;

   /// Replaces the vector by the names of all stats of the entity. The times are ignored.
   virtual void GetAvailableStatNames(const std::string& entityId, TimeStamp begin, TimeStamp end,
                                      std::vector<std::string>& statNames) = 0;

   /// Stamp of the latest column of the finest interval; unset if there is none.
   virtual TimeStamp GetLatestTimeStamp() = 0;

   /// Deleting an unknown entity or stat is not an error.
   virtual void DeleteEntityStats(const std::string& entityId) = 0;
   virtual void DeleteStat(const std::string& entityId, const std::string& statName) = 0;

   /// The rollups that a stat should have; false if its name is not known.
   using RollupSource =
      std::function<bool(const std::string& statName, std::vector<RollupType>& rollups)>;
   /// Adds the rollups that stats lack, for example because the depot is from an older program.
   virtual void AddMissingRollups(const RollupSource& source) = 0;

   /// Gives up all columns newer than `ts`, in every interval: for a clock that was ahead. Costs a
   /// read and a write of every row. Returns the number of columns given up.
   virtual int GiveUpColumnsAfter(TimeStamp ts) = 0;

   /// Lays down everything that only memory and journal have. Call it when collection stops.
   virtual void Checkpoint() = 0;

   /// Why samples are not stored at the moment, for a person; empty if they are.
   virtual std::string GetTrouble() = 0;
};

/// Does not touch the disk: call Create or Load first. `depotDir` ends with "/". One purge removes
/// at most `maxStatsPurged` stats.
void GetStatsDepot(const std::string& depotDir, const std::string& depotName,
                   Corvax::Logger* logger, int maxStatsPurged, Corvax::Ref<StatsDepot>& depot,
                   const JournalOptions& journal = {});

} // namespace Metrix
