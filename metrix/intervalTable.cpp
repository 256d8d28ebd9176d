#include "metrix/intervalTable.h"

#include "corvax/exception.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::kLogError;

/// Far above any sensible history; a damaged description must not cost gigabytes of memory.
constexpr uint32_t kMaxNumSamples = 1U << 20;

} // namespace

StatsStore& Interval::GetStore() const
{
   Assert(static_cast<bool>(_statsStore), "the interval has its store");
   return *_statsStore;
}

void IntervalTable::AddInterval(const std::string& name, const std::string& storeName,
                                int samplingPeriod, uint32_t numSamples)
{
   if (name.empty() || FindInterval(name) != nullptr || samplingPeriod < 1 || numSamples < 1 ||
       numSamples > kMaxNumSamples) {
      throw Corvax::InvalidArgumentException();
   }
   // `pos` counts the interval at which the walk stops, too. So `prev` is the first interval of a
   // greater period, if there is one, and intervals can only be added finest first. On purpose.
   const int count = GetNumIntervals();
   int pos = 0;
   for (bool isGreater = false; pos < count && !isGreater; ++pos) {
      isGreater = GetIntervalAt(pos)->_samplingPeriod > samplingPeriod;
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

void IntervalTable::Refuse(const char* pattern, int period, int otherPeriod) const
{
   _logger->Log(kLogError, pattern, period, otherPeriod);
   throw Corvax::InvalidArgumentException();
}

void IntervalTable::LoadInterval(const std::string& name, bool readOnly)
{
   Interval& interval = GetInterval(name);
   Corvax::Ref<StatsStore> store;
   GetStatsStore(interval._storeName, _logger.Get(), store);
   readOnly ? store->LoadReadOnly() : store->Load();
   if (store->GetNumSamples() != interval._numSamples) {
      _logger->Log(kLogError, "Number of samples %1 in StatsStore doesnt match expectedValue %2",
                   store->GetNumSamples(), interval._numSamples);
      throw Corvax::Exception("Number of samples in store doesnt match expected value");
   }
   interval._statsStore = store;
}

void IntervalTable::InitInterval(const std::string& name)
{
   Interval& interval = GetInterval(name);
   Corvax::Ref<StatsStore> store;
   GetStatsStore(interval._storeName, _logger.Get(), store);
   store->Create(interval._samplingPeriod, static_cast<int>(interval._numSamples));
   interval._statsStore = store;
}

void IntervalTable::PlanInterval(const std::string& name)
{
   Interval& interval = GetInterval(name);
   Corvax::Ref<StatsStore> store;
   GetStatsStore(interval._storeName, _logger.Get(), store);
   store->Plan(interval._samplingPeriod, static_cast<int>(interval._numSamples));
   interval._statsStore = store;
}

void IntervalTable::RemoveInterval(const std::string& name)
{
   std::erase_if(_intervalList,
                 [&name](const auto& interval) { return interval->_intervalName == name; });
}

Interval& IntervalTable::GetInterval(const std::string& name) const
{
   Interval* const interval = FindInterval(name);
   Assert(interval != nullptr, "the interval exists");
   return *interval;
}

Interval* IntervalTable::FindInterval(const std::string& name) const
{
   const auto found = std::ranges::find_if(
      _intervalList, [&name](const auto& interval) { return interval->_intervalName == name; });
   return found == _intervalList.end() ? nullptr : found->Get();
}

Interval* IntervalTable::GetIntervalAt(int index) const
{
   Assert(index >= 0 && index < GetNumIntervals(), "the interval exists");
   return _intervalList[static_cast<size_t>(index)].Get();
}

} // namespace Metrix
