#pragma once

#include "corvax/lockable.h"
#include "corvax/logger.h"
#include "metrix/statTypes.h"

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

/// All samples of a host: a directory with a description of the intervals, a registry of stats and
/// one store file an interval. Samples arrive in the finest interval and are rolled up into the
/// coarser ones.
///
/// Locking: the operations take no lock; their users lock the depot around a call or a group of
/// calls. Where a collector's lock is held too, it was taken first. While it is locked, rows that
/// are written may be held back; when it is unlocked its files hold everything.
/// Errors: "Invalid argument" exceptions, FileFormatException for damaged files, PlatformException
/// where the file system fails, AssertionException for any operation but these two before Create or
/// Load.
class StatsDepot : public virtual Corvax::LockableObject {
public:
   enum StatType : int32_t {
      STATTYPE_ABSOLUTE = 0, ///< a reading is the value
      STATTYPE_DELTA = 1,    ///< the value is the growth since the last reading
      STATTYPE_RATE = 2,     ///< that growth a second
   };

   enum RollupType : int32_t {
      ROLLUP_NONE = 0, ///< the values as they came
      ROLLUP_AVERAGE = 1,
      ROLLUP_MAX = 2,
      ROLLUP_MIN = 3,
      ROLLUP_LAST = 4,
      ROLLUP_SUM = 5,
   };

   /// Makes a new depot without intervals, in place of one that may be there.
   virtual void Create() = 0;
   /// Opens what is there. A store that cannot be used is made afresh.
   virtual void Load() = 0;
   /// Writes to the files what was held back since the depot was locked; what cannot be written is
   /// lost, and an exception says so. To be called before unlocking by who has recorded samples.
   virtual void Flush() = 0;

   /// Intervals are added finest first; each period is a multiple of the one before. "Invalid
   /// argument", with no file touched, for any other period, a period or number of samples below 1,
   /// or a name that is empty or taken.
   virtual void AddInterval(const std::string& name, int samplingPeriod,
                            unsigned int numSamples) = 0;
   /// Appends all intervals, finest first.
   virtual void GetIntervals(Corvax::RefVector<StatsDepotInterval>& intervals) = 0;

   /// Registers a stat with its raw series and one series a rollup. The stat must not exist. Entity
   /// id and stat name have 1 to 255 bytes. After a failure the stat does not exist.
   virtual void CreateStat(const std::string& entityId, const std::string& statName, StatType type,
                           int scalingFactor, const std::vector<RollupType>& rollups) = 0;

   /// Records a raw reading taken at `ts` (seconds): stores its value, lowered to `maxVal` unless
   /// that is 0, in the finest interval, and rolls up and purges once a period of the next interval
   /// has passed. False, with nothing done, when the stat does not exist.
   virtual bool AddSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                          StatVal value, StatVal maxVal) = 0;

   /// The sample stamped exactly `ts`, unset when there is none. An empty interval name means the
   /// finest interval; an unknown one is an "Invalid argument" exception.
   virtual StatVal GetSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                             const std::string& intervalName, RollupType rollup) = 0;

   /// A series as StatsStore::GetSamples gives it. An unknown stat or rollup gives 0 and leaves the
   /// vectors as they were.
   virtual int GetSamples(const std::string& entityId, const std::string& statName, TimeStamp begin,
                          TimeStamp end, std::vector<StatVal>& values,
                          std::vector<TimeStamp>* timeStamps, const std::string& intervalName,
                          RollupType rollup) = 0;

   /// The last raw reading and its time, both unset when there was none since the depot was opened.
   virtual StatVal GetRawSample(const std::string& entityId, const std::string& statName,
                                TimeStamp& ts) = 0;

   /// Replaces the vector by the names of all the entity's stats, whatever the times.
   virtual void GetAvailableStatNames(const std::string& entityId, TimeStamp begin, TimeStamp end,
                                      std::vector<std::string>& statNames) = 0;

   /// Newest column of the finest interval, unset when there is none.
   virtual TimeStamp GetLatestTimeStamp() = 0;

   /// Deleting what does not exist changes nothing.
   virtual void DeleteEntityStats(const std::string& entityId) = 0;
   virtual void DeleteStat(const std::string& entityId, const std::string& statName) = 0;
};

/// Nothing on disk is touched: Create or Load follows. `depotDir` ends with "/"; `maxStatsPurged`
/// is the most stats that one purge removes.
void GetStatsDepot(const std::string& depotDir, const std::string& depotName,
                   Corvax::Logger* logger, int maxStatsPurged, Corvax::Ref<StatsDepot>& depot);

} // namespace Metrix
