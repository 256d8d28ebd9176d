#include "metrix/statsDepotImpl.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogInfo;

} // namespace

/// Removes a stat from memory.
void StatsDepotImpl::ForgetStat(const std::string& entityId, const std::string& statName,
                                const StatInfo& info)
{
   ++_deletions;
   const auto entity = _entityMap.find(entityId);
   entity->second->erase(statName);
   if (entity->second->empty()) {
      _entityMap.erase(entity);
   }
   for (const StatId id : info._statIds) {
      _statInfoMap[id] = nullptr;
      _slotUsageMap->MarkSlotFree(static_cast<int>(id));
   }
}

void StatsDepotImpl::DeleteStatInt(const std::string& entityId, const std::string& statName)
{
   Corvax::Ref<StatInfo> info;
   if (GetStatInfo(entityId, statName, info)) {
      DeleteStats({{entityId, statName, info}});
   }
}

/// Visits records and rows in the order of ids, so that consecutive ones are written together.
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
   // Raw series first, in case this is cut short: Load drops a stat without its raw series, whereas
   // one without its rollups would live on without them.
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
   PrepareChange();
   if (IsJournaled() && !IsLocked()) {
      const Corvax::Locker lock(this); // commits
      return DeleteStat(entityId, statName);
   }
   DeleteStatInt(entityId, statName);
   SyncIdMap();
}

void StatsDepotImpl::DeleteEntityStats(const std::string& entityId)
{
   AssertOpen();
   PrepareChange();
   if (IsJournaled() && !IsLocked()) {
      const Corvax::Locker lock(this); // commits
      return DeleteEntityStats(entityId);
   }
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
   // Unset is the largest number, so stores without columns are ignored.
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

/// Time of the stat's newest data; 0 if it has none. Kept as the time of its last reading, so that
/// the stores are searched once.
TimeStamp StatsDepotImpl::GetLatestTimeStamp(StatInfo* info) const
{
   if (info == nullptr) {
      return kUnset;
   }
   if (info->_lastTimeStamp != kUnset) {
      return info->_lastTimeStamp;
   }
   StatId id = info->GetStatId(ROLLUP_NONE);
   StatId lastRollupId = kUnset;
   for (size_t i = 0; i < info->_statIds.size(); ++i) {
      lastRollupId = info->_rollupTypes[i] == ROLLUP_NONE ? lastRollupId : info->_statIds[i];
   }
   TimeStamp latest = kUnset;
   for (const auto& interval : *_intervalTable) {
      latest = id == kUnset ? kUnset : interval->GetStore().GetLastUpdateTime(id);
      if (latest != kUnset) {
         break;
      }
      id = lastRollupId;
   }
   info->_lastTimeStamp = latest == kUnset ? 0 : latest;
   return info->_lastTimeStamp;
}

} // namespace Metrix
