#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"

#include <algorithm>
#include <limits>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::kLogDebug;
using Corvax::kLogNotice;
using Corvax::kLogWarning;

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
   _rawId = rollup == ROLLUP_NONE ? id : _rawId;
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
   if (id >= _statInfoMap.size() || !_statInfoMap[id]) {
      return false;
   }
   info = _statInfoMap[id];
   return true;
}

StatId StatsDepotImpl::GetStatId(const std::string& entityId, const std::string& statName,
                                 RollupType rollup) const
{
   Corvax::Ref<StatInfo> info;
   return GetStatInfo(entityId, statName, info) ? info->GetStatId(rollup) : kUnset;
}

void StatsDepotImpl::GetAvailableStatNames(const std::string& entityId, TimeStamp /*begin*/,
                                           TimeStamp /*end*/, std::vector<std::string>& statNames)
{
   AssertOpen();
   statNames.clear();
   const auto entity = _entityMap.find(entityId);
   if (entity == _entityMap.end()) {
      return;
   }
   for (const auto& [statName, info] : *entity->second) {
      statNames.push_back(statName);
   }
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
   Assert(entityId.size() <= IdMapFormat::kMaxTextSize, "an entity id has at most 255 characters");
   Assert(statName.size() <= IdMapFormat::kMaxTextSize, "a stat name has at most 255 characters");
   Corvax::Ref<StatInfo> known;
   Assert(!GetStatInfo(entityId, statName, known), "a stat is created once");
   PrepareChange();
   if (IsJournaled() && !IsLocked()) {
      const Corvax::Locker lock(this); // commits
      return CreateStat(entityId, statName, type, scalingFactor, rollups);
   }
   const auto addSeries = [&](RollupType rollup) {
      const StatId id = AllocStatId();
      Assert(AddIdMapping(entityId, statName, type, scalingFactor, rollup, id),
             "a stat has each rollup once");
      return IdMapFile::Entry{id, {entityId, statName, rollup, type, scalingFactor}};
   };
   ReserveIds(rollups.size() + 1);
   try {
      // The raw series has the first id, but its record is written last: a stat whose creation is
      // cut short has no raw series in the file, and Load drops such stats.
      const IdMapFile::Entry raw = addSeries(ROLLUP_NONE);
      std::vector<IdMapFile::Entry> entries;
      entries.reserve(rollups.size());
      for (const RollupType rollup : rollups) {
         entries.push_back(addSeries(rollup));
      }
      if (IsJournaled()) {
         entries.push_back(raw); // one entry, so the order does not matter
         PersistIdMappingAddition(entries);
      } else {
         PersistIdMappingAddition(entries);
         PersistIdMappingAddition({raw});
      }
   } catch (...) {
      // A stat with only some of its rollups would never get the others, because it exists.
      TakeBackStat(entityId, statName);
      throw;
   }
}

/// Removes a stat that could not be created. Records that cannot be cleared stay until their ids
/// are allocated again; Load may find some of them before.
void StatsDepotImpl::TakeBackStat(const std::string& entityId, const std::string& statName)
{
   Corvax::Ref<StatInfo> info;
   if (!GetStatInfo(entityId, statName, info)) {
      return;
   }
   ForgetStat(entityId, statName, *info);
   try {
      std::vector<StatId> ids = info->_statIds;
      std::ranges::sort(ids);
      PersistIdMappingRemoval(ids);
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogWarning,
                   "Cannot clear the records of stat %1 of %2, which could not be created: %3",
                   statName, entityId, e.GetMessage());
   }
}

/// The lowest free slot, with its row freed in every store. AddIdMapping marks it used.
StatId StatsDepotImpl::AllocStatId()
{
   const auto id = static_cast<StatId>(_slotUsageMap->FindFirstFreeSlot());
   // A row left by a crash must not show its samples under the new name, so it is freed in the
   // file before the id map gets that name.
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      const bool isInUse = store.GetLastUpdateTime(id) != kUnset;
      store.DeleteStat(id);
      if (isInUse && !IsJournaled()) {
         Flush();
      }
   }
   return id;
}

/// With a journal, a stat that is created has the disk space for its records and rows, so that its
/// samples cannot fail later for want of space.
void StatsDepotImpl::ReserveIds(size_t count)
{
   if (!IsJournaled()) {
      return;
   }
   if (_whyNoRoom) {
      std::rethrow_exception(_whyNoRoom); // trying it for each of many stats takes seconds
   }
   // As if all slots below the map's size were used: some may be free.
   const auto end = static_cast<uint64_t>(_slotUsageMap->FindFirstFreeSlot()) + count;
   try {
      _idMapFile.Reserve(end);
      for (const auto& interval : *_intervalTable) {
         interval->GetStore().ReserveRows(end);
      }
   } catch (const Corvax::PlatformException&) {
      _whyNoRoom = IsLocked() ? std::current_exception() : nullptr;
      throw;
   }
}

void StatsDepotImpl::PersistIdMappingAddition(const std::vector<IdMapFile::Entry>& entries)
{
   if (!IsJournaled()) {
      _idMapFile.WriteRecords(entries);
      return;
   }
   StatEntry stat;
   for (const auto& [id, record] : entries) {
      stat.entityId = record.entityId;
      stat.statName = record.statName;
      stat.statType = record.statType;
      stat.scalingFactor = record.scalingFactor;
      stat.series.push_back({id, record.rollup});
      _pendingIds[id] = ++_idChanges;
   }
   _entries.AddStat(stat);
}

void StatsDepotImpl::PersistIdMappingRemoval(const std::vector<StatId>& ids)
{
   if (!IsJournaled()) {
      _idMapFile.ClearRecords(ids);
      return;
   }
   for (const StatId id : ids) {
      _pendingIds[id] = ++_idChanges;
   }
   if (!ids.empty()) {
      _entries.AddIdsFreed(ids);
   }
}

void StatsDepotImpl::SyncIdMap()
{
   if (IsJournaled()) {
      _mustSync = true;
   } else {
      _idMapFile.Sync();
   }
}

/// The stat, most often the one that followed the stat before in the last run: that costs no
/// hashing. Null if it does not exist.
StatsDepotImpl::StatInfo* StatsDepotImpl::FindStat(const std::string& entityId,
                                                   const std::string& statName)
{
   StatInfo* const last = _recordedDeletions == _deletions ? _lastRecorded : nullptr;
   if (last && last->_follower && last->_followerDeletions == _deletions) {
      StatInfo* const follower = last->_follower;
      if (*follower->_statName == statName && *follower->_entityId == entityId) {
         _lastRecorded = follower;
         __builtin_prefetch(follower->_follower);
         return follower;
      }
   }
   Corvax::Ref<StatInfo> info;
   if (!GetStatInfo(entityId, statName, info)) {
      return nullptr;
   }
   if (last) {
      last->_follower = info.Get();
      last->_followerDeletions = _deletions;
   }
   _lastRecorded = info.Get();
   _recordedDeletions = _deletions;
   return info.Get();
}

void StatsDepotImpl::AddMissingRollups(const RollupSource& source)
{
   AssertOpen();
   PrepareChange();
   if (IsJournaled() && !IsLocked()) {
      const Corvax::Locker lock(this); // commits
      return AddMissingRollups(source);
   }
   size_t completed = 0;
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         std::vector<RollupType> rollups;
         if (!source(statName, rollups)) {
            continue;
         }
         std::vector<IdMapFile::Entry> entries;
         for (const RollupType rollup : rollups) {
            if (info->GetStatId(rollup) == kUnset) {
               ReserveIds(1);
               const StatId id = AllocStatId();
               AddIdMapping(entityId, statName, info->_type, info->_scalingFactor, rollup, id);
               entries.push_back(
                  {id, {entityId, statName, rollup, info->_type, info->_scalingFactor}});
            }
         }
         if (!entries.empty()) {
            PersistIdMappingAddition(entries);
            ++completed;
         }
      }
   }
   if (completed > 0) {
      _logger->Log(kLogNotice, "%1 stats get rollups that they lacked", completed);
   }
}

bool StatsDepotImpl::AddIdMapping(const std::string& entityId, const std::string& statName,
                                  StatType type, int scalingFactor, RollupType rollup, StatId id)
{
   // Entries are inserted complete, so that running out of memory leaves no null pointer.
   auto entity = _entityMap.find(entityId);
   if (entity == _entityMap.end()) {
      entity = _entityMap.emplace(entityId, std::make_unique<StatMap>()).first;
   }
   auto stat = entity->second->find(statName);
   if (stat == entity->second->end()) {
      auto created = Corvax::MakeRef<StatInfo>(type, scalingFactor);
      stat = entity->second->emplace(statName, std::move(created)).first;
      stat->second->_entityId = &entity->first;
      stat->second->_statName = &stat->first;
   }
   const Corvax::Ref<StatInfo>& info = stat->second;
   if (id >= _statInfoMap.size()) {
      _statInfoMap.resize(static_cast<size_t>(id) + 1); // before the stat has the id
   }
   if (!info->AddStatId(id, rollup)) {
      return false;
   }
   _statInfoMap[id] = info;
   _slotUsageMap->MarkSlotUsed(static_cast<int>(id));
   _logger->Log(kLogDebug, "Added statId %1 for %2-%3-%4", id, entityId, statName, rollup);
   return true;
}

/// Loads the records, but for those of `pending`, which are newer than the file.
void StatsDepotImpl::LoadIdMapping(const PendingStats& pending)
{
   const uint64_t size = _idMapFile.GetSizeBytes();
   if (size % IdMapFormat::kRecordSize != 0) {
      _logger->Log(kLogWarning, "StatsDepot idmap file might be corrupted.File size is not a "
                                "multiple of the record size");
   }
   const uint64_t records = size / IdMapFormat::kRecordSize;
   if (records > static_cast<uint64_t>(std::numeric_limits<int>::max())) {
      throw Corvax::FileFormatException("Too many records in " + GetIdMapFileName());
   }
   const StatId end = pending.empty() ? 0 : pending.rbegin()->first + 1;
   _slotUsageMap = Corvax::MakeRef<SlotUsageMap>(static_cast<int>(std::max(records, end)));

   constexpr uint64_t kBadRecordsNamed = 10;
   uint64_t badRecords = 0;
   _idMapFile.ReadRecords(records, [&](StatId id, const IdMapFormat::Record& record) {
      const auto found = pending.find(id);
      if (found != pending.end() && found->second) {
         LoadIdRecord(found->second->GetRecord(), id);
      } else if (found == pending.end() && !LoadIdRecord(record, id) &&
                 ++badRecords <= kBadRecordsNamed) {
         _logger->Log(kLogWarning, "StatsDepot idmap file has a damaged record at %1, skipped", id);
      }
   });
   if (badRecords > kBadRecordsNamed) {
      _logger->Log(kLogWarning, "StatsDepot idmap file has %1 damaged records in all, skipped",
                   badRecords);
   }
   for (auto found = pending.lower_bound(records); found != pending.end(); ++found) {
      if (found->second) {
         LoadIdRecord(found->second->GetRecord(), found->first);
      }
   }
   DropStatsWithoutRawId();
}

/// False for a damaged record.
bool StatsDepotImpl::LoadIdRecord(const IdMapFormat::Record& record, StatId id)
{
   if (record.entityId.empty()) {
      return true;
   }
   if (record.statName.empty() || !IsRollupType(record.rollup) || !IsStatType(record.statType)) {
      return false;
   }
   const std::string entityId(record.entityId);
   const std::string statName(record.statName);
   if (!AddIdMapping(entityId, statName, static_cast<StatType>(record.statType),
                     record.scalingFactor, static_cast<RollupType>(record.rollup), id)) {
      _logger->Log(kLogNotice, "StatId %1 for %2-%3 is a duplicate", id, entityId, statName);
   }
   return true;
}

/// A stat without a raw series could take no sample and would fail every collection. Once dropped,
/// it is created again with its next sample; its records stay until their ids are used again.
void StatsDepotImpl::DropStatsWithoutRawId()
{
   std::vector<Corvax::Ref<StatInfo>> damaged;
   for (const auto& [entityId, stats] : _entityMap) {
      for (const auto& [statName, info] : *stats) {
         if (info->GetStatId(ROLLUP_NONE) == kUnset) {
            damaged.push_back(info);
         }
      }
   }
   for (const Corvax::Ref<StatInfo>& info : damaged) {
      const std::string entityId = *info->_entityId;
      const std::string statName = *info->_statName;
      _logger->Log(kLogWarning, "Stat %1 of %2 has lost its raw series and is dropped", statName,
                   entityId);
      ForgetStat(entityId, statName, *info);
      _droppedIds.insert(_droppedIds.end(), info->_statIds.begin(), info->_statIds.end());
   }
}

/// Detects an id-map file that was truncated at a record's end: the stores then have rows in use
/// beyond its last record.
void StatsDepotImpl::FindLostRecords() const
{
   constexpr int kIdsToCheck = 8;
   const int records = _slotUsageMap->GetSize();
   for (const auto& interval : *_intervalTable) {
      for (int id = records; id < records + kIdsToCheck; ++id) {
         if (interval->GetStore().GetLastUpdateTime(static_cast<StatId>(id)) != kUnset) {
            _logger->Log(kLogWarning,
                         "StatsDepot idmap file %1 was truncated: it has %2 records, but interval "
                         "%3 has samples of stat id %4. The stats after the last record are lost",
                         GetIdMapFileName(), records, interval->_intervalName, id);
            return;
         }
      }
   }
}

} // namespace Metrix
