#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "metrix/littleEndian.h"

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

// A gap is filled in pieces of this size, one a missing record and one more. They are shorter than
// records on purpose: the record behind the gap is written at its own place, and what lies between
// reads as zero bytes all the same.
constexpr size_t kGapBlockSize = 512;

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
      const StatId rawId = AllocSlot();
      if (existed) {
         PersistIdMappingAddition(entityId, statName, type, scalingFactor, ROLLUP_NONE, rawId);
      }
      AddNewIdMapping(entityId, statName, type, scalingFactor, ROLLUP_NONE, rawId);
      for (const RollupType rollup : rollups) {
         AllocStatId(entityId, statName, type, scalingFactor, rollup);
      }
      PersistIdMappingAddition(entityId, statName, type, scalingFactor, ROLLUP_NONE, rawId);
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
      for (const StatId id : info._statIds) {
         PersistIdMappingRemoval(id);
      }
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogWarning, "Records of a stat that could not be created stay: %1",
                   e.GetMessage());
   }
}

StatId StatsDepotImpl::AllocStatId(const std::string& entityId, const std::string& statName,
                                   StatType type, int scalingFactor, RollupType rollup)
{
   const StatId id = AllocSlot();
   PersistIdMappingAddition(entityId, statName, type, scalingFactor, rollup, id);
   AddNewIdMapping(entityId, statName, type, scalingFactor, rollup, id);
   return id;
}

/// The lowest free slot, with no row of it in use anywhere; it is marked used by AddIdMapping.
StatId StatsDepotImpl::AllocSlot()
{
   const auto id = static_cast<StatId>(_slotUsageMap->FindFirstFreeSlot());
   // A row that a crash left behind must not show its samples under the new name: it is freed in the
   // file before the id map has that name.
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

void StatsDepotImpl::AddNewIdMapping(const std::string& entityId, const std::string& statName,
                                     StatType type, int scalingFactor, RollupType rollup, StatId id)
{
   Assert(AddIdMapping(entityId, statName, type, scalingFactor, rollup, id),
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

void StatsDepotImpl::PersistIdMappingAddition(const std::string& entityId,
                                              const std::string& statName, StatType type,
                                              int scalingFactor, RollupType rollup, StatId id)
{
   Assert(entityId.size() < kTextFieldSize, "an entity id has at most 255 characters");
   Assert(statName.size() < kTextFieldSize, "a stat name has at most 255 characters");
   const StatId records = _idMapFileHandle->GetSize() / kRecordSize;
   if (id > records) {
      const std::vector<std::byte> gap((id - records + 1) * kGapBlockSize);
      _idMapFileHandle->Seek(records * kRecordSize);
      _idMapFileHandle->WriteAll(gap.data(), gap.size());
   }
   std::byte record[kRecordSize] = {};
   EncodeText(entityId, &record[kEntityPos]);
   EncodeText(statName, &record[kStatNamePos]);
   EncodeNumber(rollup, &record[kRollupPos]);
   EncodeNumber(type, &record[kStatTypePos]);
   EncodeNumber(scalingFactor, &record[kScalingFactorPos]);
   _idMapFileHandle->Seek(id * kRecordSize);
   _idMapFileHandle->WriteAll(record, kRecordSize);
}

/// Clears the entity field alone, which frees the record.
void StatsDepotImpl::PersistIdMappingRemoval(StatId id)
{
   const std::byte zeroes[kTextFieldSize] = {};
   _idMapFileHandle->Seek(id * kRecordSize + kEntityPos);
   _idMapFileHandle->WriteAll(zeroes, sizeof zeroes);
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
   Corvax::Ref<StatInfo> info; // holds the stat until its rows are freed
   if (!GetStatInfo(entityId, statName, info)) {
      return;
   }
   for (const StatId id : info->_statIds) {
      PersistIdMappingRemoval(id);
   }
   ForgetStat(entityId, statName, *info);
   for (const auto& interval : *_intervalTable) {
      for (const StatId id : info->_statIds) {
         interval->GetStore().DeleteStat(id);
      }
   }
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
   const std::string entityCopy = entityId; // the caller's may be the key that goes
   for (size_t left = entity->second->size(); left > 0; --left) {
      const std::string statName = _entityMap.at(entityCopy)->begin()->first;
      DeleteStatInt(entityCopy, statName);
   }
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
   std::vector<std::pair<std::string, std::string>> selected;
   const auto limit = static_cast<size_t>(std::max(_maxStatsPurged, 0));
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         if (selected.size() < limit && GetLatestTimeStamp(info.Get()) < earliest) {
            selected.emplace_back(entityId, statName);
         }
      }
   }
   if (selected.empty()) {
      return;
   }
   _logger->Log(kLogInfo, "Purging %1 stats", selected.size());
   for (const auto& [entityId, statName] : selected) {
      DeleteStatInt(entityId, statName);
   }
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
