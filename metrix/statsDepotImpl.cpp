#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::FileCreation;
using Corvax::kLogError;
using Corvax::kLogWarning;

constexpr int kInitialSlots = 200;

/// Far above any sensible history; a damaged description must not cost gigabytes of memory.
constexpr uint32_t kMaxNumSamples = 1U << 20;

constexpr char kNoIntervals[] = "Couldnot find any interval infromation in depot file";

} // namespace

StatsStore& StatsDepotImpl::Interval::GetStore() const
{
   Assert(static_cast<bool>(_statsStore), "the interval has its store");
   return *_statsStore;
}

void StatsDepotImpl::IntervalTable::AddInterval(const std::string& name,
                                                const std::string& storeName, int samplingPeriod,
                                                uint32_t numSamples)
{
   if (name.empty() || FindInterval(name) != nullptr || samplingPeriod < 1 || numSamples < 1 ||
       numSamples > kMaxNumSamples) {
      throw Corvax::InvalidArgumentException();
   }
   // `pos` counts the interval at which the walk stops, too. So `prev` is the first interval of a
   // greater period wherever there is one, and intervals can only be added finest first; on
   // purpose.
   const int count = GetNumIntervals();
   int pos = 0;
   while (pos < count && GetIntervalAt(pos++)->_samplingPeriod <= samplingPeriod) {
   }
   if (pos >= 1) {
      const int prevPeriod = GetIntervalAt(pos - 1)->_samplingPeriod;
      if (samplingPeriod % prevPeriod != 0) {
         Refuse("AddInterval failed : sampling period %1 is not a multiple of existing interval %2",
                samplingPeriod, prevPeriod);
      }
      if (samplingPeriod == prevPeriod) {
         Refuse("AddInterval failed : Sampling period %1 already exists", samplingPeriod, 0);
      }
   }
   if (pos < count) {
      const int nextPeriod = GetIntervalAt(pos)->_samplingPeriod;
      if (nextPeriod % samplingPeriod != 0) {
         Refuse("AddInterval failed : Existing sampling period %1 is not a multiple of interval %2",
                nextPeriod, samplingPeriod);
      }
   }
   _intervalList.insert(_intervalList.begin() + pos,
                        Corvax::MakeRef<Interval>(name, storeName, samplingPeriod, numSamples));
}

void StatsDepotImpl::IntervalTable::Refuse(const char* pattern, int period, int otherPeriod) const
{
   _logger->Log(kLogError, pattern, period, otherPeriod);
   throw Corvax::InvalidArgumentException();
}

void StatsDepotImpl::IntervalTable::LoadInterval(const std::string& name)
{
   Interval* const interval = FindInterval(name);
   Assert(interval != nullptr, "the interval to load exists");
   Corvax::Ref<StatsStore> store;
   GetStatsStore(interval->_storeName, _logger.Get(), store);
   store->Load();
   if (store->GetNumSamples() != interval->_numSamples) {
      _logger->Log(kLogError, "Number of samples %1 in StatsStore doesnt match expectedValue %2",
                   store->GetNumSamples(), interval->_numSamples);
      throw Corvax::Exception("Number of samples in store doesnt match expected value");
   }
   interval->_statsStore = store;
}

void StatsDepotImpl::IntervalTable::InitInterval(const std::string& name)
{
   Interval* const interval = FindInterval(name);
   Assert(interval != nullptr, "the interval to initialise exists");
   Corvax::Ref<StatsStore> store;
   GetStatsStore(interval->_storeName, _logger.Get(), store);
   store->Create(interval->_samplingPeriod, static_cast<int>(interval->_numSamples));
   interval->_statsStore = store;
}

StatsDepotImpl::Interval* StatsDepotImpl::IntervalTable::FindInterval(const std::string& name) const
{
   const auto found = std::ranges::find_if(
      _intervalList, [&name](const auto& interval) { return interval->_intervalName == name; });
   return found == _intervalList.end() ? nullptr : found->Get();
}

StatsDepotImpl::Interval* StatsDepotImpl::IntervalTable::GetIntervalAt(int index) const
{
   Assert(index >= 0 && index < GetNumIntervals(), "the interval exists");
   return _intervalList[static_cast<size_t>(index)].Get();
}

StatsDepotImpl::StatsDepotImpl(std::string depotDir, std::string depotName, Corvax::Logger* logger,
                               int maxStatsPurged)
   : _depotDir(std::move(depotDir)), _depotName(std::move(depotName)),
     _maxStatsPurged(maxStatsPurged), _intervalTable(Corvax::MakeRef<IntervalTable>(logger)),
     _logger(logger)
{
}

std::string StatsDepotImpl::GetStoreName(int samplingPeriod) const
{
   return _depotDir + _depotName + "-" + std::to_string(samplingPeriod) + ".stats";
}

void StatsDepotImpl::AssertOpen() const
{
   Assert(static_cast<bool>(_slotUsageMap), "the depot is created or loaded");
}

void StatsDepotImpl::Create()
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   if (!factory.Exists(_depotDir)) {
      factory.CreateDirectory(_depotDir);
   }
   Corvax::GetXmlConfig(GetDepotFileName(), _statsDepotConfig);
   _idMapFileHandle = factory.NewFileHandle();
   _idMapFileHandle->Open(GetIdMapFileName(), Corvax::FILE_READ_WRITE, FileCreation::CREATE_ALWAYS);
   _statsDepotConfig->Save();
   _nextUpdateTime = kUnset;
   _slotUsageMap = Corvax::MakeRef<SlotUsageMap>(kInitialSlots);
}

void StatsDepotImpl::AddInterval(const std::string& name, int samplingPeriod,
                                 unsigned int numSamples)
{
   AssertOpen();
   const std::string storeName = GetStoreName(samplingPeriod);
   _intervalTable->AddInterval(name, storeName, samplingPeriod, numSamples);
   _intervalTable->InitInterval(name);

   const int index = _statsDepotConfig->AddElement("intervals", "interval");
   const std::string path = "intervals/interval[" + std::to_string(index) + "]/";
   _statsDepotConfig->Set(path + "name", name);
   _statsDepotConfig->Set(path + "storeName", storeName);
   _statsDepotConfig->Set(path + "samplingPeriod", std::to_string(samplingPeriod));
   _statsDepotConfig->Set(path + "numSamples", std::to_string(numSamples));
   _statsDepotConfig->Save();
}

void StatsDepotImpl::Load()
{
   _idMapFileHandle = Corvax::System::GetFactory().NewFileHandle();
   _idMapFileHandle->Open(GetIdMapFileName(), Corvax::FILE_READ_WRITE, FileCreation::OPEN_EXISTING);
   Corvax::GetXmlConfig(GetDepotFileName(), _statsDepotConfig);
   _statsDepotConfig->Read();
   std::vector<std::string> elements;
   if (!_statsDepotConfig->GetChildren("intervals", "interval", elements)) {
      _logger->Log(kLogError, kNoIntervals);
      throw Corvax::FileFormatException(kNoIntervals);
   }
   LoadIdMapping();
   for (const std::string& element : elements) {
      LoadInterval(element);
   }
   FindLostRecords();
   _nextUpdateTime = kUnset;
}

void StatsDepotImpl::LoadInterval(const std::string& element)
{
   const std::string path = "intervals/" + element + "/";
   const std::string invalid = "Invalid interval information for interval " + element;
   std::string name;
   std::string storeName;
   int32_t samplingPeriod = 0;
   int32_t numSamples = 0;
   if (!_statsDepotConfig->Get(path + "name", name) ||
       !_statsDepotConfig->Get(path + "storeName", storeName) ||
       !_statsDepotConfig->Get(path + "samplingPeriod", samplingPeriod) ||
       !_statsDepotConfig->Get(path + "numSamples", numSamples)) {
      _logger->Log(kLogError, "%1", invalid);
      throw Corvax::FileFormatException(invalid);
   }
   _intervalTable->AddInterval(name, storeName, samplingPeriod,
                               static_cast<uint32_t>(std::max(numSamples, 0)));
   try {
      _intervalTable->LoadInterval(name);
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "Error in loading interval %1: %2", name, e.GetMessage());
      // Only a store of this depot is made afresh: another path may be anybody's file.
      if (storeName != GetStoreName(samplingPeriod)) {
         _logger->Log(kLogError, "%1", invalid);
         throw Corvax::FileFormatException(invalid);
      }
      _intervalTable->InitInterval(name);
   }
}

/// An id-map file that was cut at a record's end looks whole; rows of stats that it no longer names
/// give it away.
void StatsDepotImpl::FindLostRecords()
{
   constexpr int kIdsLookedAt = 8;
   const int records = _slotUsageMap->GetSize();
   for (const auto& interval : *_intervalTable) {
      for (int id = records; id < records + kIdsLookedAt; ++id) {
         if (interval->GetStore().GetLastUpdateTime(static_cast<StatId>(id)) != kUnset) {
            _logger->Log(kLogWarning,
                         "StatsDepot idmap file %1 has lost records: it has %2, but interval %3 "
                         "has samples of stat %4. What it no longer names is given up",
                         GetIdMapFileName(), records, interval->_intervalName, id);
            DropStatOfLastRecord();
            return;
         }
      }
   }
}

void StatsDepotImpl::Lock()
{
   LockableObjectImpl::Lock();
   if (_lockDepth++ == 0) {
      BeginBatch();
   }
}

/// Nothing may be held back once others can look at the files. Who recorded samples has called
/// Flush and knows what failed; whoever has not finds it in the log.
void StatsDepotImpl::Unlock()
{
   if (IsLocked() && --_lockDepth == 0) {
      EndBatchOrLog();
   }
   LockableObjectImpl::Unlock();
}

StatsDepotImpl::Batch::~Batch()
{
   if (!_hasEnded) {
      _depot.EndBatchOrLog();
   }
   if (_depot.IsLocked()) {
      _depot.BeginBatch();
   }
}

void StatsDepotImpl::Batch::End()
{
   _hasEnded = true;
   _depot.EndBatch();
}

void StatsDepotImpl::EndBatchOrLog()
{
   try {
      EndBatch();
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "Samples are lost: %1", e.GetMessage());
   }
}

void StatsDepotImpl::BeginBatch()
{
   for (const auto& interval : *_intervalTable) {
      if (interval->_statsStore) {
         interval->_statsStore->BeginBatch();
      }
   }
}

/// All stores get their turn, the first failure is told.
void StatsDepotImpl::EndBatch()
{
   std::exception_ptr failure;
   for (const auto& interval : *_intervalTable) {
      try {
         if (interval->_statsStore) {
            interval->_statsStore->EndBatch();
         }
      } catch (const Corvax::Exception&) {
         failure = failure ? failure : std::current_exception();
      }
   }
   if (failure) {
      std::rethrow_exception(failure);
   }
}

void StatsDepotImpl::Flush()
{
   if (IsLocked()) {
      Batch(*this).End();
   }
}

void StatsDepotImpl::GetIntervals(Corvax::RefVector<StatsDepotInterval>& intervals)
{
   AssertOpen();
   for (const auto& interval : *_intervalTable) {
      intervals.push_back(Corvax::MakeRef<StatsDepotInterval>(
         interval->_samplingPeriod, static_cast<int>(interval->_numSamples),
         interval->_intervalName));
   }
}

StatsDepotImpl::Interval* StatsDepotImpl::SelectInterval(const std::string& intervalName) const
{
   if (intervalName.empty()) {
      return _intervalTable->GetNumIntervals() > 0 ? _intervalTable->GetIntervalAt(0) : nullptr;
   }
   Interval* const interval = _intervalTable->FindInterval(intervalName);
   if (interval == nullptr) {
      _logger->Log(kLogError, "Interval %1 not found", intervalName);
      throw Corvax::InvalidArgumentException();
   }
   return interval;
}

StatVal StatsDepotImpl::GetSample(const std::string& entityId, const std::string& statName,
                                  TimeStamp ts, const std::string& intervalName, RollupType rollup)
{
   AssertOpen();
   const StatId id = GetStatId(entityId, statName, rollup);
   if (id == kUnset) {
      return kUnset;
   }
   const Interval* const interval = SelectInterval(intervalName);
   return interval ? interval->GetStore().GetSample(id, ts) : kUnset;
}

int StatsDepotImpl::GetSamples(const std::string& entityId, const std::string& statName,
                               TimeStamp begin, TimeStamp end, std::vector<StatVal>& values,
                               std::vector<TimeStamp>* timeStamps, const std::string& intervalName,
                               RollupType rollup)
{
   AssertOpen();
   const StatId id = GetStatId(entityId, statName, rollup);
   if (id == kUnset) {
      return 0;
   }
   const Interval* const interval = SelectInterval(intervalName);
   if (interval == nullptr) {
      values.clear();
      if (timeStamps) {
         timeStamps->clear();
      }
      return 0;
   }
   return interval->GetStore().GetSamples(id, begin, end, values, timeStamps);
}

StatVal StatsDepotImpl::GetRawSample(const std::string& entityId, const std::string& statName,
                                     TimeStamp& ts)
{
   AssertOpen();
   ts = kUnset;
   Corvax::Ref<StatInfo> info;
   if (!GetStatInfo(entityId, statName, info) || info->_lastTimeStamp == kUnset) {
      return kUnset;
   }
   ts = info->_lastTimeStamp;
   return info->_lastVal;
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

TimeStamp StatsDepotImpl::GetLatestTimeStamp()
{
   AssertOpen();
   const Interval* const finest = SelectInterval({});
   return finest ? finest->GetStore().GetLatestTimeStamp() : kUnset;
}

void GetStatsDepot(const std::string& depotDir, const std::string& depotName,
                   Corvax::Logger* logger, int maxStatsPurged, Corvax::Ref<StatsDepot>& depot)
{
   depot = Corvax::MakeRef<StatsDepotImpl>(depotDir, depotName, logger, maxStatsPurged);
}

} // namespace Metrix
