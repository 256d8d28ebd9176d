#pragma once

#include "corvax/exception.h"
#include "metrix/columnRing.h"
#include "metrix/rowWindow.h"
#include "metrix/statsStore.h"
#include "metrix/storeFormat.h"
#include "metrix/storeHead.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Metrix {

/// The store. statsStore.cpp: the file, recording, reading. statsStoreHead.cpp: the head, and
/// laying its rows down. statsStoreColumns.cpp: the header, and columns that are given up.
class StatsStoreImpl : public StatsStore, public Corvax::ObjectImpl {
public:
   StatsStoreImpl(std::string fileName, Corvax::Logger* logger)
      : _fileName(std::move(fileName)), _logger(logger)
   {
   }

   void Create(int samplingPeriod, int numSamples) override;
   void Load() override { Load(Corvax::FILE_READ_WRITE); }
   void LoadReadOnly() override { Load(Corvax::FILE_READ); }
   void Plan(int samplingPeriod, int numSamples) override;
   bool IsPlanned() override { return !_storeHandle && _numSamples > 0; }
   void Flush() override;
   void AddSample(StatId statId, TimeStamp ts, StatVal value) override;
   StatVal GetSample(StatId statId, TimeStamp ts) override;
   int GetSamples(StatId statId, TimeStamp begin, TimeStamp end, std::vector<StatVal>& values,
                  std::vector<TimeStamp>* timeStamps) override;
   TimeStamp GetLastUpdateTime(StatId statId) override;
   bool DeleteStat(StatId statId) override;
   TimeStamp GetLatestTimeStamp() override;
   TimeStamp GetEarliestTimeStamp() override;
   void GetTimeStamps(std::vector<TimeStamp>& timeStamps) override;
   uint32_t GetNumSamples() override { return _numSamples; }
   uint32_t GetSamplingPeriod() override { return _samplingPeriod; }
   void BeginBatch() override;
   void EndBatch() override;

   void AttachHead(uint32_t columns, uint32_t store, JournalEntries* entries) override;
   void DetachHead() override;
   StoreHead* GetHead() override { return _head.get(); }
   void SetColumns(const std::vector<TimeStamp>& columns) override;
   const std::vector<TimeStamp>& GetFileColumns() override { return _fileColumns; }
   JournalFormat::StoreShape GetShape() override;
   void ReplayColumn(TimeStamp ts) override;
   void ReplayCell(uint32_t column, StatId id, StatVal value) override;
   void ReplayImage(StatId id, std::span<const std::byte> bytes) override;
   std::vector<TimeStamp> HideImpossibleColumns(TimeStamp newest) override;
   void HideNewerColumns() override;
   bool HasHiddenColumns() override;
   bool HasRoom(TimeStamp ts) override;
   uint64_t GetLostSamples() override { return _lostSamples; }
   void ReserveRows(StatId end) override;
   void WriteHeader() override;
   void SetHeaderDurable() override;
   TimeStamp GetHeaderStamp() override { return _headerStamp; }
   TimeStamp GetSettledStamp() override;
   LayDownResult LayDown(StatId first, StatId end, TimeStamp newestStamp) override;
   void SetRowsDurable(StatId first, StatId end, TimeStamp newestStamp) override;
   int GiveUpColumnsAfter(TimeStamp ts) override;
   bool IsInPlace() override;
   const std::string& GetFileName() override { return _fileName; }

private:
   void AssertOpen() const { Corvax::Assert(_numSamples > 0, "the store is created or loaded"); }
   void Load(uint32_t access);
   void SetShape(uint32_t samplingPeriod, uint32_t numSamples);
   [[noreturn]] void ThrowDamaged(const std::string& message);
   uint32_t ReadUInt32(uint64_t pos);
   void ReadTimeStamps();

   int64_t FindRow(StatId statId) const;
   std::optional<StoreFormat::StatVector> GetStatVector(StatId statId);
   StoreFormat::StatVector AllocStatVector(StatId statId);
   void WriteStatVector(StatId statId);

   int32_t FindColumn(TimeStamp ts) const { return _columns.FindColumn(ts); }
   int32_t FindClosestColumn(TimeStamp ts) const { return _columns.FindClosestColumn(ts); }
   int32_t ChooseColumn(TimeStamp ts);
   int32_t AddColumn(TimeStamp ts);
   void WriteTimeStamp(int32_t column, TimeStamp ts);
   void InvalidateGap(StoreFormat::StatVector& row, int32_t chosen) const;

   void HideColumns(const std::vector<size_t>& columns);
   bool IsHidden(size_t column) const { return !_lostColumns.empty() && _lostColumns[column]; }
   void AddHeadColumn(TimeStamp ts);
   void MakeRoom();
   void AddHeadSample(StatId statId, int32_t column, TimeStamp ts, StatVal value);
   void ReplaceRow(StatId statId, int32_t column, TimeStamp ts, StatVal value);
   std::optional<StoreFormat::StatVector> ComposeRow(StatId statId);
   std::byte* GetFileRow(StatId statId);
   void OpenWindow();
   void LayDownRow(StatId id, TimeStamp newestStamp, LayDownResult& result);
   void Extend(StatId id, const StoreHead::Extension& extension);
   bool TryLayDown(StatId first, StatId end, TimeStamp newestStamp, LayDownResult& result);

   const std::string _fileName;
   Corvax::Ref<Corvax::FileHandle> _storeHandle; ///< null if the file is not created yet
   uint32_t _numStats = 0; ///< rows, with new ones that the file does not have yet
   uint32_t _numSamples = 0;
   uint32_t _samplingPeriod = 0;
   ColumnRing _columns;
   uint64_t _statVectorPos = 0; ///< file offset of row 0
   size_t _rowSize = 0;
   std::unique_ptr<RowWindow> _rows; ///< null like _storeHandle
   const Corvax::Ref<Corvax::Logger> _logger;

   std::unique_ptr<StoreHead> _head;
   uint32_t _storeNumber = 0;
   JournalEntries* _entries = nullptr;
   std::vector<TimeStamp> _fileColumns;          ///< as the file's header has them
   TimeStamp _writtenStamp = kUnset;             ///< newest one in the header
   TimeStamp _headerStamp = kUnset;              ///< newest one there for certain
   std::atomic<bool> _mustRewriteHeader = false; ///< a failed sync may have lost stamps
   std::vector<StatId> _extensions;              ///< LayDown's rows that only get more samples
   std::vector<std::byte> _composed;             ///< ComposeRow's result
   std::vector<bool> _lostColumns; ///< by column: hidden, but in the file; empty: none
   uint64_t _reservedRows = 0;
   uint64_t _fileSize = 0; ///< that the file has for certain, without an incomplete row
   uint64_t _lostSamples = 0;
};

} // namespace Metrix
