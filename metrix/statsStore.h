#pragma once

#include "corvax/file.h"
#include "corvax/logger.h"
#include "metrix/journalEntries.h"
#include "metrix/journalFormat.h"
#include "metrix/statTypes.h"
#include "metrix/storeHead.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Metrix {

/// The samples of one interval for all stats: a file with a row per stat and a ring of columns,
/// each with a time stamp. docs/formats/store.md describes the file.
///
/// Locking: none; used under the depot's lock.
/// Errors: FileFormatException for a damaged file, PlatformException if the file system fails,
/// AssertionException for every operation called before Create, Load or Plan.
class StatsStore : public virtual Corvax::Object {
public:
   /// Creates an empty file, over one that exists, and loads it. InvalidArgumentException if either
   /// number is below 1; the file is then untouched.
   virtual void Create(int samplingPeriod, int numSamples) = 0;
   virtual void Load() = 0;
   virtual void LoadReadOnly() = 0;
   /// Makes it an empty store whose file does not exist until Create. Nothing can be stored.
   virtual void Plan(int samplingPeriod, int numSamples) = 0;
   virtual bool IsPlanned() = 0;
   virtual void Flush() = 0;

   /// Stores a sample in the column stamped `ts`, or in a new column if `ts` is newer than all
   /// columns. InvalidArgumentException if `ts` is unset, or is not newer and no column has it.
   /// Costs one row read and one row write, plus a stamp write for a new column; less in a batch,
   /// and mostly memory alone with a head.
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

   /// Frees the row. False if there is no such row; freeing a free row returns true.
   virtual bool DeleteStat(StatId statId) = 0;

   /// Unset if no column is in use.
   virtual TimeStamp GetLatestTimeStamp() = 0;
   virtual TimeStamp GetEarliestTimeStamp() = 0;

   /// Replaces the vector by the stamps of all columns in use, oldest first.
   virtual void GetTimeStamps(std::vector<TimeStamp>& timeStamps) = 0;

   virtual uint32_t GetNumSamples() = 0;
   virtual uint32_t GetSamplingPeriod() = 0;

   /// Between BeginBatch and EndBatch changed rows may stay in memory, so that two system calls
   /// serve a range of consecutive rows. Without a head, column stamps are written at once.
   virtual void BeginBatch() = 0;
   /// Writes all pending changes. Throws if a write fails; the changes in that write are lost.
   virtual void EndBatch() = 0;

   // With a head. New columns and samples then stay in memory, with entries for the journal, until
   // they are laid down into the file. Reading returns both as one.

   /// Adds a head of that many columns. Its changes add entries for store number `store` to
   /// `entries`, which outlives the store's use.
   virtual void AttachHead(uint32_t columns, uint32_t store, JournalEntries* entries) = 0;
   /// Without a head again: nothing of it is pending.
   virtual void DetachHead() = 0;
   /// Null if there is none.
   virtual StoreHead* GetHead() = 0;
   /// Replaces all columns, and drops all of the head.
   virtual void SetColumns(const std::vector<TimeStamp>& columns) = 0;
   /// The stamps of all columns, also of those not in use, as the file has them.
   virtual const std::vector<TimeStamp>& GetFileColumns() = 0;
   virtual JournalFormat::StoreShape GetShape() = 0;
   /// Applies a change that a journal has. FileFormatException for one that is impossible.
   virtual void ReplayColumn(TimeStamp ts) = 0;
   virtual void ReplayCell(uint32_t column, StatId id, StatVal value) = 0;
   virtual void ReplayImage(StatId id, std::span<const std::byte> bytes) = 0;
   /// Takes columns out whose stamps cannot be right, none being newer than `newest`. Returns their
   /// stamps. GiveUpColumnsAfter clears them in the file.
   virtual std::vector<TimeStamp> HideImpossibleColumns(TimeStamp newest) = 0;
   /// Takes columns out that the file has and that are newer than all in memory: a damaged journal
   /// has lost them.
   virtual void HideNewerColumns() = 0;
   virtual bool HasHiddenColumns() = 0;

   /// Whether a sample at `ts` can be added without giving anything up.
   virtual bool HasRoom(TimeStamp ts) = 0;
   /// Number of samples that were given up because they could not be laid down.
   virtual uint64_t GetLostSamples() = 0;
   /// Reserves space for rows below `end`; PlatformException (ENOSPC) if there is none.
   virtual void ReserveRows(StatId end) = 0;

   /// Writes the stamps of all columns into the file's header. No row may be written before they
   /// are synced: Flush and then SetHeaderDurable.
   virtual void WriteHeader() = 0;
   virtual void SetHeaderDurable() = 0;
   /// The newest column that the file's header has for certain; unset if none.
   virtual TimeStamp GetHeaderStamp() = 0;
   /// The newest of those columns that will get no more samples; 0 if none.
   virtual TimeStamp GetSettledStamp() = 0;

   struct LayDownResult {
      std::vector<StatId> postponed; ///< rows whose new entries must be synced first
      uint64_t failed = 0;           ///< rows that could not be read or written
      std::string error;             ///< of the first of them
   };
   /// Writes the rows' pending changes into the file, of samples those up to `newestStamp`.
   virtual LayDownResult LayDown(StatId first, StatId end, TimeStamp newestStamp) = 0;
   /// What was laid down of these rows is synced, and pending no more.
   virtual void SetRowsDurable(StatId first, StatId end, TimeStamp newestStamp) = 0;

   /// Gives up all columns newer than `ts` and those that are hidden, in the file: nothing is
   /// pending. Returns their number.
   virtual int GiveUpColumnsAfter(TimeStamp ts) = 0;

   /// Whether the file is still at its path, and not shorter than it was.
   virtual bool IsInPlace() = 0;
   virtual const std::string& GetFileName() = 0;
};

/// Does not open the file: call Create or Load first.
void GetStatsStore(const std::string& fileName, Corvax::Logger* logger,
                   Corvax::Ref<StatsStore>& store);

} // namespace Metrix
