#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::kLogError;

constexpr int kInitialSlots = 200;

constexpr char kWritable[] = "the depot was opened for writing";
constexpr char kNoIntervals[] = "Couldnot find any interval infromation in depot file";

} // namespace

StatsDepotImpl::StatsDepotImpl(std::string depotDir, std::string depotName, Corvax::Logger* logger,
                               int maxStatsPurged, const JournalOptions& journalOptions)
   : _depotDir(std::move(depotDir)), _depotName(std::move(depotName)),
     _maxStatsPurged(maxStatsPurged), _journalOptions(journalOptions),
     _intervalTable(Corvax::MakeRef<IntervalTable>(logger)), _logger(logger)
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
   if (!_writerLock) {
      _writerLock = factory.Lock(GetPrefix() + ".lock");
   }
   for (size_t i = 0; i < kJournalFiles; ++i) {
      factory.Remove(GetJournalFileName(GetPrefix(), i)); // of a depot that was there
   }
   Corvax::GetXmlConfig(GetDepotFileName(), _statsDepotConfig);
   _idMapFile.Create(GetIdMapFileName());
   _statsDepotConfig->Save();
   factory.SyncDirectory(_depotDir);
   _nextUpdateTime = kUnset;
   _slotUsageMap = Corvax::MakeRef<SlotUsageMap>(kInitialSlots);
}

void StatsDepotImpl::AddInterval(const std::string& name, int samplingPeriod,
                                 unsigned int numSamples)
{
   AssertOpen();
   Assert(!_readOnly, kWritable);
   if (_intervalTable->GetNumIntervals() > 0) {
      PrepareChange();
   }
   if (IsJournaled()) {
      Assert(!_isMaintaining, "no checkpoint is under way");
      CheckpointNow();
      _journal->Remove(); // the next one knows the new store, too
      _journal = nullptr;
      _schedules.clear();
   }
   const std::string storeName = GetStoreName(samplingPeriod);
   _intervalTable->AddInterval(name, storeName, samplingPeriod, numSamples);
   try {
      _intervalTable->InitInterval(name);
   } catch (...) {
      _intervalTable->RemoveInterval(name);
      throw;
   }
   const int index = _statsDepotConfig->AddElement("intervals", "interval");
   const std::string path = "intervals/interval[" + std::to_string(index) + "]/";
   _statsDepotConfig->Set(path + "name", name);
   _statsDepotConfig->Set(path + "storeName", storeName);
   _statsDepotConfig->Set(path + "samplingPeriod", std::to_string(samplingPeriod));
   _statsDepotConfig->Set(path + "numSamples", std::to_string(numSamples));
   _statsDepotConfig->Save();
   Corvax::System::GetFactory().SyncDirectory(_depotDir);
   _isReady = false; // the journal has to know the store
}

void StatsDepotImpl::Load()
{
   Open(false);
}

void StatsDepotImpl::LoadReadOnly()
{
   Open(true);
}

void StatsDepotImpl::Open(bool readOnly)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   _readOnly = readOnly;
   factory.GetFileSize(GetIdMapFileName()); // before the lock's file is created
   if (!readOnly && !_writerLock) {
      _writerLock = factory.Lock(GetPrefix() + ".lock");
   }
   _idMapFile.Open(GetIdMapFileName(), readOnly);
   Corvax::GetXmlConfig(GetDepotFileName(), _statsDepotConfig);
   _statsDepotConfig->Read();
   std::vector<std::string> elements;
   if (!_statsDepotConfig->GetChildren("intervals", "interval", elements)) {
      _logger->Log(kLogError, kNoIntervals);
      throw Corvax::FileFormatException(kNoIntervals);
   }
   for (const std::string& element : elements) {
      LoadInterval(element);
   }
   Recover(); // with the id map, which the journal completes
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
   const std::string ownName = GetStoreName(samplingPeriod);
   if (storeName != ownName && Corvax::System::GetFactory().Exists(ownName)) {
      _logger->Log(Corvax::kLogWarning,
                   "%1 names the store %2; the one beside it, %3, is used instead",
                   GetDepotFileName(), storeName, ownName);
      storeName = ownName;
      _mustMendDescription = true;
   }
   _intervalTable->AddInterval(name, storeName, samplingPeriod,
                               static_cast<uint32_t>(std::max(numSamples, 0)));
   std::string error;
   try {
      _intervalTable->LoadInterval(name, _readOnly);
      return;
   } catch (const Corvax::OutOfMemoryException&) {
      throw;
   } catch (const Corvax::PlatformException& e) {
      if (Corvax::System::GetFactory().Exists(storeName)) {
         throw; // a passing failure must not cost the samples
      }
      error = e.GetMessage();
   } catch (const Corvax::Exception& e) {
      error = e.GetMessage();
   }
   _logger->Log(kLogError, "Error in loading interval %1: %2", name, error);
   // Only a store of this depot is recreated: any other path may be someone else's file.
   if (storeName != ownName) {
      _logger->Log(kLogError, "%1", invalid);
      throw Corvax::FileFormatException(invalid);
   }
   _intervalTable->PlanInterval(name);
}

void StatsDepotImpl::Lock()
{
   LockableObjectImpl::Lock();
   if (_lockDepth++ == 0) {
      _whyNotReady = nullptr;
      _whyNoRoom = nullptr;
      BeginBatch();
   }
}

/// Writes pending changes before others can access the files. A failure is only logged: a caller
/// that needs to know calls Flush first. What the journal needs after a commit is done without the
/// lock.
void StatsDepotImpl::Unlock()
{
   bool hasCommitted = false;
   if (IsLocked() && --_lockDepth == 0) {
      EndBatchOrLog();
      hasCommitted = CommitOrLog();
   }
   LockableObjectImpl::Unlock();
   if (hasCommitted) {
      Maintain();
   }
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

/// Ends the batch in every store, then rethrows the first failure.
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
   Commit();
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

bool StatsDepotImpl::AddSample(const std::string& entityId, const std::string& statName,
                               TimeStamp ts, StatVal value, StatVal maxVal)
{
   AssertOpen();
   if (ts == kUnset) {
      throw Corvax::InvalidArgumentException();
   }
   PrepareChange();
   if (IsJournaled() && !IsLocked()) {
      const Corvax::Locker lock(this); // commits
      return AddSample(entityId, statName, ts, value, maxVal);
   }
   StatInfo* const info = FindStat(entityId, statName);
   if (info == nullptr) {
      return false;
   }
   RecordSample(*info, ts, value, maxVal);
   info->_lastTimeStamp = ts;
   info->_lastVal = value;
   if (_intervalTable->GetNumIntervals() > 1) {
      UpdateRollups(ts); // may delete the stat
   }
   return true;
}

void StatsDepotImpl::RecordSample(StatInfo& info, TimeStamp ts, StatVal value, StatVal maxVal)
{
   const StatId rawId = info._rawId;
   Assert(rawId != kUnset, "a stat has a raw series");
   const Interval& fine = *_intervalTable->GetIntervalAt(0);
   const uint64_t period = fine.GetPeriod();
   StatVal stored = value;
   if (info._type != STATTYPE_ABSOLUTE) {
      const TimeStamp last = info._lastTimeStamp;
      if (last == kUnset || ts <= last || ts - last >= 2 * period || value < info._lastVal) {
         return; // the growth since the last reading is unknown
      }
      // The factor is sign-extended, and the product may wrap.
      stored = static_cast<uint64_t>(int64_t{info._scalingFactor}) * (value - info._lastVal);
      if (info._type == STATTYPE_RATE) {
         stored /= ts - last;
      }
   }
   if (maxVal != 0) {
      stored = std::min(stored, maxVal);
   }
   MakeRoomFor(fine.GetStore(), ts - ts % period);
   fine.GetStore().AddSample(rawId, ts - ts % period, stored);
}

void StatsDepotImpl::UpdateRollups(TimeStamp ts)
{
   if (!_lateRollups.empty() && ts > _lateRollupsTs) {
      PropagateLate(ts);
   }
   if (_nextUpdateTime != kUnset) {
      if (ts < _nextUpdateTime) {
         return;
      }
      PropagateStats(ts);
      PurgeUnusedStats();
   }
   _nextUpdateTime = ts + _intervalTable->GetIntervalAt(1)->GetPeriod();
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

TimeStamp StatsDepotImpl::GetLatestTimeStamp()
{
   AssertOpen();
   const Interval* const finest = SelectInterval({});
   return finest ? finest->GetStore().GetLatestTimeStamp() : kUnset;
}

void GetStatsDepot(const std::string& depotDir, const std::string& depotName,
                   Corvax::Logger* logger, int maxStatsPurged, Corvax::Ref<StatsDepot>& depot,
                   const JournalOptions& journal)
{
   depot = Corvax::MakeRef<StatsDepotImpl>(depotDir, depotName, logger, maxStatsPurged, journal);
}

} // namespace Metrix
