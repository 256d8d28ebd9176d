#include "metrix/statsMetadata.h"

#include "corvax/exception.h"
#include "plexa/fault.h"

#include <algorithm>

namespace Metrix {

namespace {

constexpr size_t kBucketCount = 100;

Corvax::Ref<Quen::ElementDescription> Describe(const std::string& key, const std::string& summary)
{
   auto description = Corvax::MakeRef<Quen::ElementDescription>();
   description->label = key;
   description->summary = summary;
   description->key = key;
   return description;
}

} // namespace

const std::string StatsMetadata::AggregateInstanceId;

void StatsMetadata::StatsDepotData::AddRollup(CounterId counterId, StatsDepot::RollupType rollup)
{
   _rollups.push_back(rollup);
   _counterIds.push_back(counterId);
}

bool StatsMetadata::StatsDepotData::GetCounterId(StatsDepot::RollupType rollup,
                                                 CounterId& counterId) const
{
   if (rollup == StatsDepot::ROLLUP_NONE) {
      counterId = _id;
      return true;
   }
   const auto found = std::ranges::find(_rollups, rollup);
   if (found == _rollups.end()) {
      return false;
   }
   counterId = _counterIds[static_cast<size_t>(found - _rollups.begin())];
   return true;
}

bool StatsMetadata::StatsDepotData::GetRollup(CounterId counterId,
                                              StatsDepot::RollupType& rollup) const
{
   const auto found = std::ranges::find(_counterIds, counterId);
   if (found != _counterIds.end()) {
      rollup = _rollups[static_cast<size_t>(found - _counterIds.begin())];
      return true;
   }
   if (counterId == _id) {
      rollup = StatsDepot::ROLLUP_NONE;
      return true;
   }
   return false;
}

StatsMetadata::StatsMetadata()
   : _perfCounterInfoList(kBucketCount), _statsDepotDataList(kBucketCount)
{
   for (int i = 0; i < numAgentdStatsInfo; ++i) {
      const StatsInfo& row = agentdStatsInfoList[i];
      const std::vector<CounterId>* const derived = row.associatedCounters.get();
      AddCounterInfo(row.id, row.device, row.name, row.description, row.unit, row.statsType,
                     row.counterType, derived);
      AddStatsDepotData(row.id, row.statsTypeInDepot, derived, row.rollupTypes);
      for (size_t k = 0; derived != nullptr && k < derived->size(); ++k) {
         AddCounterInfo((*derived)[k], row.device, row.name, row.description, row.unit,
                        row.statsType, (*row.associatedCounterTypes)[k], nullptr);
      }
   }
}

void StatsMetadata::AddCounterInfo(CounterId id, const std::string& group, const std::string& name,
                                   const std::string& description, const std::string& unit,
                                   CounterInfo::StatsType statsType,
                                   CounterInfo::RollupType rollupType,
                                   const std::vector<CounterId>* associated)
{
   auto info = Corvax::MakeRef<CounterInfo>();
   info->key = id;
   info->nameInfo = Describe(name, description);
   info->groupInfo = Describe(group, group);
   info->unitInfo = Describe(unit, unit);
   info->rollupType = rollupType;
   info->statsType = statsType;
   if (associated) {
      info->associatedCounterId = *associated;
   }
   const bool isNew = _perfCounterInfoList.try_emplace(id, info).second;
   Corvax::Assert(isNew, "a counter id is in the table once");
}

void StatsMetadata::AddStatsDepotData(CounterId id, StatsDepot::StatType type,
                                      const std::vector<CounterId>* counterIds,
                                      const std::vector<StatsDepot::RollupType>* rollups)
{
   std::string statName;
   GetStatName(id, statName);
   auto data = std::make_unique<StatsDepotData>(id, type);
   if (counterIds && !counterIds->empty()) {
      for (size_t i = 0; i < counterIds->size(); ++i) {
         data->AddRollup((*counterIds)[i], (*rollups)[i]);
      }
   } else if (rollups && !rollups->empty()) {
      data->AddRollup(id, rollups->front());
   }
   const bool isNew = _statsDepotDataList.try_emplace(statName, std::move(data)).second;
   Corvax::Assert(isNew, "a stat name is in the table once");
}

bool StatsMetadata::GetStatName(CounterId counterId, std::string& statName) const
{
   return GetStatName(counterId, AggregateInstanceId, statName);
}

bool StatsMetadata::GetStatName(CounterId counterId, const std::string& instance,
                                std::string& statName) const
{
   const CounterInfo* const info = GetCounterInfo(counterId);
   if (info == nullptr) {
      return false;
   }
   statName = info->groupInfo->key;
   statName += '-';
   statName += info->nameInfo->key;
   if (instance != AggregateInstanceId) {
      statName += '#';
      statName += instance;
   }
   return true;
}

const StatsMetadata::StatsDepotData*
StatsMetadata::GetStatsDepotData(const std::string& statName) const
{
   const auto found = _statsDepotDataList.find(statName.substr(0, statName.find('#')));
   return found == _statsDepotDataList.end() ? nullptr : found->second.get();
}

std::string StatsMetadata::GetInstanceId(const std::string& statName)
{
   const size_t mark = statName.find('#');
   return mark == std::string::npos ? AggregateInstanceId : statName.substr(mark + 1);
}

StatsMetadata::CounterInfo* StatsMetadata::GetCounterInfo(CounterId counterId) const
{
   const auto found = _perfCounterInfoList.find(counterId);
   return found == _perfCounterInfoList.end() ? nullptr : found->second.Get();
}

bool StatsMetadata::IsCompositeCounter(CounterId counterId) const
{
   const CounterInfo* const info = GetCounterInfo(counterId);
   if (info == nullptr) {
      throw Plexa::Fault::InvalidArgument::Exception();
   }
   return info->associatedCounterId && !info->associatedCounterId->empty();
}

void StatsMetadata::GetAllCounters(Corvax::Ref<Plexa::DataArray<CounterInfo>>& result) const
{
   result = Corvax::MakeRef<Plexa::DataArray<CounterInfo>>();
   result->Reserve(_perfCounterInfoList.size());
   for (const auto& [id, info] : _perfCounterInfoList) {
      result->Append(info);
   }
}

} // namespace Metrix
