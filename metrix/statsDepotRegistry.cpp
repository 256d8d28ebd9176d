#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "metrix/littleEndian.h"
#include "metrix/rowWindow.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::kLogDebug;
using Corvax::kLogInfo;
using Corvax::kLogNotice;
using Corvax::kLogWarning;

// A record of the id-map file: two text fields, ended by a zero byte or the field's end, then three
// numbers. A first byte of zero marks a free record.
constexpr size_t kTextFieldSize = 256;
constexpr size_t kEntityPos = 0;
constexpr size_t kStatNamePos = 256;
constexpr size_t kRollupPos = 512;
constexpr size_t kStatTypePos = 516;
constexpr size_t kScalingFactorPos = 520;
constexpr size_t kRecordSize = 524;

// The file is read in pieces of this many records.
constexpr size_t kRecordsAtOnce = 1024;

std::string DecodeText(const std::byte* field)
{
   const char* const text = reinterpret_cast<const char*>(field);
   return std::string(text, ::strnlen(text, kTextFieldSize));
}

void EncodeText(const std::string& text, std::byte* field)
{
   std::memcpy(field, text.data(), text.size());
}

int32_t DecodeNumber(const std::byte* field)
{
   return static_cast<int32_t>(Decode<uint32_t>(field));
}

void EncodeNumber(int32_t value, std::byte* field)
{
   Encode(static_cast<uint32_t>(value), field);
}

bool IsStatType(int32_t type)
{
   return type >= StatsDepot::STATTYPE_ABSOLUTE && type <= StatsDepot::STATTYPE_RATE;
}

bool IsRollupType(int32_t rollup)
{
   return rollup >= StatsDepot::ROLLUP_NONE && rollup <= StatsDepot::ROLLUP_SUM;
}

} // namespace

bool StatsDepotImpl::StatInfo::AddStatId(StatId id, RollupType rollup)
{
   if (GetStatId(rollup) != kUnset || HasStatId(id)) {
      return false;
   }
   _statIds.push_back(id);
   _rollupTypes.push_back(rollup);
   return true;
}

StatId StatsDepotImpl::StatInfo::GetStatId(RollupType rollup) const
{
   const auto found = std::ranges::find(_rollupTypes, rollup);
   return found == _rollupTypes.end() ? kUnset
                                      : _statIds[static_cast<size_t>(found - _rollupTypes.begin())];
}

StatsDepot::RollupType StatsDepotImpl::StatInfo::GetRollupType(StatId id) const
{
   const auto found = std::ranges::find(_statIds, id);
   if (found == _statIds.end()) {
      Corvax::NotReached("the id is one of the stat's");
   }
   return _rollupTypes[static_cast<size_t>(found - _statIds.begin())];
}

bool StatsDepotImpl::StatInfo::HasStatId(StatId id) const
{
   return std::ranges::find(_statIds, id) != _statIds.end();
}

bool StatsDepotImpl::GetStatInfo(const std::string& entityId, const std::string& statName,
                                 Corvax::Ref<StatInfo>& info) const
{
   const auto entity = _entityMap.find(entityId);
   if (entity == _entityMap.end()) {
      return false;
   }
   const auto stat = entity->second->find(statName);
   if (stat == entity->second->end()) {
      return false;
   }
   info = stat->second;
   return true;
}

bool StatsDepotImpl::GetStatInfo(StatId id, Corvax::Ref<StatInfo>& info) const
{
   const auto found = _statInfoMap.find(id);
   if (found == _statInfoMap.end()) {
      return false;
   }
   info = found->second;
   return true;
}

StatId StatsDepotImpl::GetStatId(const std::string& entityId, const std::string& statName,
                                 RollupType rollup) const
{
   Corvax::Ref<StatInfo> info;
   return GetStatInfo(entityId, statName, info) ? info->GetStatId(rollup) : kUnset;
}

void StatsDepotImpl::CreateStat(const std::string& entityId, const std::string& statName,
                                StatType type, int scalingFactor,
                                const std::vector<RollupType>& rollups)
{
   AssertOpen();
   if (entityId.empty() || statName.empty() || !IsStatType(type) ||
       !std::ranges::all_of(rollups, IsRollupType)) {
      throw Corvax::InvalidArgumentException();
   }
   Corvax::Ref<StatInfo> info;
   const bool existed = GetStatInfo(entityId, statName, info);
   try {
      // The raw id is the first, but its record is written last: a stat whose creation was cut off
      // by the process's end has no raw series, and is given up when the depot is loaded.
      const StatId rawId = AllocStatId();
      const IdRecord raw = {&entityId, &statName, ROLLUP_NONE, type, scalingFactor, rawId};
      if (existed) {
         PersistIdMappingAddition({raw});
      }
      AddNewIdMapping(raw);
      std::vector<IdRecord> records;
      for (const RollupType rollup : rollups) {
         records.push_back({&entityId, &statName, rollup, type, scalingFactor, AllocStatId()});
         AddNewIdMapping(records.back());
      }
      PersistIdMappingAddition(records);
      PersistIdMappingAddition({raw});
   } catch (const Corvax::Exception&) {
      // A stat with a part of its rollups would never get the rest, for it exists.
      if (!existed && GetStatInfo(entityId, statName, info)) {
         ForgetStat(entityId, statName, *info);
         TryPersistRemoval(*info);
      }
      throw;
   }
}

/// Clears the records of a stat that is no longer registered. Where that fails, they are written
/// over when their ids are allocated next.
void StatsDepotImpl::TryPersistRemoval(const StatInfo& info)
{
   try {
      std::vector<StatId> ids = info._statIds;
      std::ranges::sort(ids);
      PersistIdMappingRemoval(ids);
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogWarning, "Records of a stat that could not be created stay: %1",
                   e.GetMessage());
   }
}

/// The lowest free slot, with no row of it in use anywhere; it is marked used by AddIdMapping.
StatId StatsDepotImpl::AllocStatId()
{
   const auto id = static_cast<StatId>(_slotUsageMap->FindFirstFreeSlot());
   // A row that a crash left behind must not show its samples under the new name: it is freed in
   // the file before the id map has that name.
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      const bool isInUse = store.GetLastUpdateTime(id) != kUnset;
      store.DeleteStat(id);
      if (isInUse) {
         Flush();
      }
   }
   return id;
}

void StatsDepotImpl::AddNewIdMapping(const IdRecord& record)
{
   Assert(AddIdMapping(*record.entityId, *record.statName, record.type, record.scalingFactor,
                       record.rollup, record.id),
          "a stat has each rollup once");
}

bool StatsDepotImpl::AddIdMapping(const std::string& entityId, const std::string& statName,
                                  StatType type, int scalingFactor, RollupType rollup, StatId id)
{
   std::unique_ptr<StatMap>& stats = _entityMap[entityId];
   if (!stats) {
      stats = std::make_unique<StatMap>();
   }
   Corvax::Ref<StatInfo>& info = (*stats)[statName];
   if (!info) {
      info = Corvax::MakeRef<StatInfo>(type, scalingFactor);
   }
   if (!info->AddStatId(id, rollup)) {
      return false;
   }
   _statInfoMap[id] = info;
   _slotUsageMap->MarkSlotUsed(static_cast<int>(id));
   _logger->Log(kLogDebug, "Added statId %1 for %2-%3-%4", id, entityId, statName, rollup);
   return true;
}

/// Writes neighbouring records at once. Records between the file's end and the first of them come
/// into being as zero bytes, which is free.
void StatsDepotImpl::PersistIdMappingAddition(const std::vector<IdRecord>& records)
{
   std::vector<std::byte> bytes;
   for (size_t i = 0; i < records.size(); ++i) {
      const IdRecord& record = records[i];
      Assert(record.entityId->size() < kTextFieldSize, "an entity id has at most 255 characters");
      Assert(record.statName->size() < kTextFieldSize, "a stat name has at most 255 characters");
      bytes.resize(bytes.size() + kRecordSize);
      EncodeRecord(record, &bytes[bytes.size() - kRecordSize]);
      if (i + 1 == records.size() || records[i + 1].id != record.id + 1) {
         _idMapFileHandle->Seek((record.id + 1) * kRecordSize - bytes.size());
         _idMapFileHandle->WriteAll(bytes.data(), bytes.size());
         bytes.clear();
      }
   }
}

void StatsDepotImpl::EncodeRecord(const IdRecord& record, std::byte* out)
{
   EncodeText(*record.entityId, out + kEntityPos);
   EncodeText(*record.statName, out + kStatNamePos);
   EncodeNumber(record.rollup, out + kRollupPos);
   EncodeNumber(record.type, out + kStatTypePos);
   EncodeNumber(record.scalingFactor, out + kScalingFactorPos);
}

/// Clears the entity fields alone, which frees the records. The ids ascend.
void StatsDepotImpl::PersistIdMappingRemoval(const std::vector<StatId>& ids)
{
   RowWindow records(_idMapFileHandle, 0, kRecordSize);
   records.BeginBatch();
   for (const StatId id : ids) {
      std::memset(records.Get(id) + kEntityPos, 0, kTextFieldSize);
      records.Put(id);
   }
   records.EndBatch();
}

void StatsDepotImpl::SyncIdMap()
{
   _idMapFileHandle->Flush();
}

void StatsDepotImpl::LoadIdMapping()
{
   const uint64_t size = _idMapFileHandle->GetSize();
   if (size % kRecordSize != 0) {
      _logger->Log(kLogWarning, "StatsDepot idmap file might be corrupted.File size is not a "
                                "multiple of the record size");
   }
   const uint64_t records = size / kRecordSize;
   if (records > static_cast<uint64_t>(std::numeric_limits<int>::max())) {
      throw Corvax::FileFormatException("Too many records in " + GetIdMapFileName());
   }
   _slotUsageMap = Corvax::MakeRef<SlotUsageMap>(static_cast<int>(records));

   constexpr uint64_t kBadRecordsNamed = 10;
   uint64_t badRecords = 0;
   std::vector<std::byte> piece(kRecordsAtOnce * kRecordSize);
   _idMapFileHandle->Seek(0);
   for (StatId first = 0; first < records; first += kRecordsAtOnce) {
      const size_t wanted = std::min<uint64_t>(kRecordsAtOnce, records - first);
      const size_t count = _idMapFileHandle->Read(piece.data(), wanted * kRecordSize) / kRecordSize;
      for (size_t i = 0; i < count; ++i) {
         if (!LoadIdRecord(&piece[i * kRecordSize], first + i) &&
             ++badRecords <= kBadRecordsNamed) {
            _logger->Log(kLogWarning, "StatsDepot idmap file has a damaged record at %1, skipped",
                         first + i);
         }
      }
   }
   if (badRecords > kBadRecordsNamed) {
      _logger->Log(kLogWarning, "StatsDepot idmap file has %1 damaged records in all, skipped",
                   badRecords);
   }
   DropStatsWithoutRawId();
}

/// False for a record that cannot have been written by a depot.
bool StatsDepotImpl::LoadIdRecord(const std::byte* record, StatId id)
{
   if (record[kEntityPos] == std::byte{0}) {
      return true;
   }
   const std::string entityId = DecodeText(&record[kEntityPos]);
   const std::string statName = DecodeText(&record[kStatNamePos]);
   const int32_t rollup = DecodeNumber(&record[kRollupPos]);
   const int32_t type = DecodeNumber(&record[kStatTypePos]);
   const int32_t scalingFactor = DecodeNumber(&record[kScalingFactorPos]);
   if (statName.empty() || !IsRollupType(rollup) || !IsStatType(type)) {
      return false;
   }
   if (!AddIdMapping(entityId, statName, static_cast<StatType>(type), scalingFactor,
                     static_cast<RollupType>(rollup), id)) {
      _logger->Log(kLogNotice, "StatId %1 for %2-%3 is a duplicate", id, entityId, statName);
   }
   return true;
}

/// A stat whose raw series has lost its record could take no sample, and would fail every
/// collection. It is given up, and created again when it is sampled next.
void StatsDepotImpl::DropStatsWithoutRawId()
{
   std::vector<std::pair<std::string, std::string>> damaged;
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         if (info->GetStatId(ROLLUP_NONE) == kUnset) {
            damaged.emplace_back(entityId, statName);
         }
      }
   }
   for (const auto& [entityId, statName] : damaged) {
      _logger->Log(kLogWarning, "Stat %1 of %2 has lost its raw series and is given up", statName,
                   entityId);
      DeleteStatInt(entityId, statName);
   }
}

/// Where the file lost its end, the stat of the last record may have lost some of its rollups with
/// it, and would never get them back. It is given up, too, and created again whole.
void StatsDepotImpl::DropStatOfLastRecord()
{
   const StatId lastId = static_cast<StatId>(_slotUsageMap->GetSize()) - 1;
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         if (info->HasStatId(lastId)) {
            _logger->Log(kLogWarning, "Stat %1 of %2 may have lost rollups and is given up",
                         statName, entityId);
            DeleteStatInt(std::string(entityId), std::string(statName));
            return;
         }
      }
   }
}

/// The part of a deletion that happens in memory.
void StatsDepotImpl::ForgetStat(const std::string& entityId, const std::string& statName,
                                const StatInfo& info)
{
   for (const StatId id : info._statIds) {
      _statInfoMap.erase(id);
      _slotUsageMap->MarkSlotFree(static_cast<int>(id));
   }
   const auto entity = _entityMap.find(entityId);
   entity->second->erase(statName);
   if (entity->second->empty()) {
      _entityMap.erase(entity);
   }
}

void StatsDepotImpl::DeleteStatInt(const std::string& entityId, const std::string& statName)
{
   Corvax::Ref<StatInfo> info;
   if (GetStatInfo(entityId, statName, info)) {
      DeleteStats({{entityId, statName, info}});
   }
}

/// Walks files in the order of ids, so that neighbouring records and rows go at once.
void StatsDepotImpl::DeleteStats(const std::vector<StatName>& stats)
{
   std::vector<StatId> rawIds;
   std::vector<StatId> rollupIds;
   for (const StatName& stat : stats) {
      for (size_t i = 0; i < stat.info->_statIds.size(); ++i) {
         const bool isRaw = stat.info->_rollupTypes[i] == ROLLUP_NONE;
         (isRaw ? rawIds : rollupIds).push_back(stat.info->_statIds[i]);
      }
   }
   std::ranges::sort(rawIds);
   std::ranges::sort(rollupIds);
   // A stat that is left without its raw record is given up when the depot is loaded; one without
   // its rollups' records would live on without them.
   PersistIdMappingRemoval(rawIds);
   PersistIdMappingRemoval(rollupIds);
   for (const StatName& stat : stats) {
      ForgetStat(stat.entityId, stat.statName, *stat.info);
   }
   rawIds.insert(rawIds.end(), rollupIds.begin(), rollupIds.end());
   std::ranges::sort(rawIds);
   Batch batch(*this);
   for (const auto& interval : *_intervalTable) {
      for (const StatId id : rawIds) {
         interval->GetStore().DeleteStat(id);
      }
   }
   batch.End();
}

void StatsDepotImpl::DeleteStat(const std::string& entityId, const std::string& statName)
{
   AssertOpen();
   DeleteStatInt(entityId, statName);
   SyncIdMap();
}

void StatsDepotImpl::DeleteEntityStats(const std::string& entityId)
{
   AssertOpen();
   const auto entity = _entityMap.find(entityId);
   if (entity == _entityMap.end()) {
      return;
   }
   std::vector<StatName> stats;
   for (const auto& [statName, info] : *entity->second) {
      stats.push_back({entityId, statName, info});
   }
   DeleteStats(stats);
   SyncIdMap();
}

TimeStamp StatsDepotImpl::GetEarliestTimeStamp() const
{
   // Unset is the largest number, so stores without columns do not count.
   TimeStamp earliest = kUnset;
   for (const auto& interval : *_intervalTable) {
      earliest = std::min(earliest, interval->GetStore().GetEarliestTimeStamp());
   }
   return earliest;
}

void StatsDepotImpl::PurgeUnusedStats()
{
   const TimeStamp earliest = GetEarliestTimeStamp();
   _logger->Log(kLogDebug, "EarliestTs %1", earliest);
   if (earliest == kUnset) {
      return;
   }
   std::vector<StatName> selected;
   const auto limit = static_cast<size_t>(std::max(_maxStatsPurged, 0));
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         if (selected.size() < limit && GetLatestTimeStamp(info.Get()) < earliest) {
            selected.push_back({entityId, statName, info});
         }
      }
   }
   if (selected.empty()) {
      return;
   }
   _logger->Log(kLogInfo, "Purging %1 stats", selected.size());
   DeleteStats(selected);
   SyncIdMap();
   _logger->Log(kLogInfo, "Purge done");
}

/// Time of the stat's newest data, 0 when it has none anywhere.
TimeStamp StatsDepotImpl::GetLatestTimeStamp(StatInfo* info) const
{
   if (info == nullptr) {
      return kUnset;
   }
   if (info->_lastTimeStamp != kUnset) {
      return info->_lastTimeStamp;
   }
   StatId id = info->GetStatId(ROLLUP_NONE);
   StatId lastRollupId = id;
   for (size_t i = 0; i < info->_statIds.size(); ++i) {
      lastRollupId = info->_rollupTypes[i] == ROLLUP_NONE ? lastRollupId : info->_statIds[i];
   }
   TimeStamp latest = kUnset;
   for (const auto& interval : *_intervalTable) {
      latest = interval->GetStore().GetLastUpdateTime(id);
      if (latest != kUnset) {
         break;
      }
      id = lastRollupId;
   }
   info->_lastTimeStamp = latest == kUnset ? 0 : latest;
   return info->_lastTimeStamp;
}

} // namespace Metrix
