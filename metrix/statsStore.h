#pragma once

#include "corvax/file.h"
#include "corvax/logger.h"
#include "metrix/statTypes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Metrix {

/// The samples of one interval for all stats: a file with a row per stat and a ring of columns,
/// each with a time stamp. docs/formats/store.md describes the file.
///
/// Locking: none; used under the depot's lock.
/// Errors: FileFormatException for a damaged file, PlatformException if the file system fails,
/// AssertionException for every operation called before Create or Load.
class StatsStore : public virtual Corvax::Object {
public:
   /// Creates an empty file, over one that exists, and loads it. InvalidArgumentException if either
   /// number is below 1; the file is then untouched.
   virtual void Create(int samplingPeriod, int numSamples) = 0;
   virtual void Load() = 0;
   virtual void Flush() = 0;

   /// Stores a sample in the column stamped `ts`, or in a new column if `ts` is newer than all
   /// columns. InvalidArgumentException if `ts` is unset, or is not newer and no column has it.
   /// Costs one row read and one row write, plus a stamp write for a new column; less in a batch.
   virtual void AddSample(StatId statId, TimeStamp ts, StatVal value) = 0;

   /// Unset if there is no such column, row or sample.
   virtual StatVal GetSample(StatId statId, TimeStamp ts) = 0;

   /// Replaces `values` (and `timeStamps`, unless null) by one entry for each column with
   /// begin <= stamp <= end, oldest first; a missing sample is unset. An unset `begin` means the
   /// oldest column. Returns the number of valid values.
   virtual int GetSamples(StatId statId, TimeStamp begin, TimeStamp end,
                          std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps) = 0;

   /// Stamp of the sample that was stored last in the row; unset if there is no row.
   virtual TimeStamp GetLastUpdateTime(StatId statId) = 0;

   /// Frees the row. False if the file has no such row; freeing a free row returns true.
   virtual bool DeleteStat(StatId statId) = 0;

   /// Unset if no column is in use.
   virtual TimeStamp GetLatestTimeStamp() = 0;
   virtual TimeStamp GetEarliestTimeStamp() = 0;

   /// Replaces the vector by the stamps of all columns in use, oldest first.
   virtual void GetTimeStamps(std::vector<TimeStamp>& timeStamps) = 0;

   virtual uint32_t GetNumSamples() = 0;
   virtual uint32_t GetSamplingPeriod() = 0;

   /// Between BeginBatch and EndBatch changed rows may stay in memory, so that two system calls
   /// serve a range of consecutive rows. Column stamps are always written at once.
   virtual void BeginBatch() = 0;
   /// Writes all pending changes. Throws if a write fails; the changes in that write are lost.
   virtual void EndBatch() = 0;
};

/// Does not open the file: call Create or Load first.
void GetStatsStore(const std::string& fileName, Corvax::Logger* logger,
                   Corvax::Ref<StatsStore>& store);

} // namespace Metrix
