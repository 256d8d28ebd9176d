#pragma once

#include "corvax/file.h"
#include "corvax/logger.h"
#include "metrix/statTypes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Metrix {

/// The samples of one interval for all stats: a fixed number of columns, each stamped with a time
/// and reused in a circle, and a row a stat, in one directly addressed file.
///
/// Locking: none of its own; used under the depot's lock.
/// Errors: FileFormatException for a damaged file, PlatformException where the file system fails,
/// AssertionException before Create or Load. docs/formats/store.md has the file, byte by byte.
class StatsStore : public virtual Corvax::Object {
public:
   /// Makes the file afresh, without rows, and loads it. InvalidArgumentException, with no file
   /// touched, when either number is below 1.
   virtual void Create(int samplingPeriod, int numSamples) = 0;
   virtual void Load() = 0;
   virtual void Flush() = 0;

   /// Stores a sample in the column stamped `ts`, or in the next column when `ts` is newer than
   /// all. InvalidArgumentException when `ts` is unset, or not newer and no column's stamp. A row
   /// read and a row written, and a stamp for a new column; straight through but in a batch.
   virtual void AddSample(StatId statId, TimeStamp ts, StatVal value) = 0;

   /// Unset when there is no such column, row or sample.
   virtual StatVal GetSample(StatId statId, TimeStamp ts) = 0;

   /// Replaces `values` (and `timeStamps`, unless null) by one entry for each column with
   /// begin <= stamp <= end, oldest first, absent samples unset; an unset `begin` is the oldest
   /// column. Returns the number of samples present.
   virtual int GetSamples(StatId statId, TimeStamp begin, TimeStamp end,
                          std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps) = 0;

   /// Stamp of the newest sample put into the row, unset when there is no row.
   virtual TimeStamp GetLastUpdateTime(StatId statId) = 0;

   /// Marks the row free; false when the id lies beyond the rows.
   virtual bool DeleteStat(StatId statId) = 0;

   /// Unset when no column is in use.
   virtual TimeStamp GetLatestTimeStamp() = 0;
   virtual TimeStamp GetEarliestTimeStamp() = 0;

   /// Replaces the vector by the stamps of all columns in use, oldest first.
   virtual void GetTimeStamps(std::vector<TimeStamp>& timeStamps) = 0;

   virtual uint32_t GetNumSamples() = 0;
   virtual uint32_t GetSamplingPeriod() = 0;

   /// From BeginBatch to EndBatch rows may be held back in memory: two system calls then serve a
   /// run of neighbouring rows. Column stamps are always written straight through.
   virtual void BeginBatch() = 0;
   /// Writes what was held back; what cannot be written is lost, and an exception says so.
   virtual void EndBatch() = 0;
};

/// Nothing is opened: Create or Load follows.
void GetStatsStore(const std::string& fileName, Corvax::Logger* logger,
                   Corvax::Ref<StatsStore>& store);

} // namespace Metrix
