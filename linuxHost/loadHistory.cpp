#include "linuxHost/loadHistory.h"

#include "corvax/clock.h"
#include "linuxHost/kernel/saturate.h"

#include <algorithm>
#include <limits>

namespace LinuxHost {

namespace {

constexpr int64_t kMinuteUs = 60 * Corvax::kMicrosecondsPerSecond;
constexpr int64_t kKeptUs = 15 * kMinuteUs;
constexpr int64_t kMaxGapUs = 2 * LoadHistory::kSamplePeriodUs;

uint32_t Percent(uint64_t partUs, int64_t elapsedUs)
{
   const uint64_t percent = Scale(partUs, 100, static_cast<uint64_t>(elapsedUs));
   return static_cast<uint32_t>(std::min<uint64_t>(percent, std::numeric_limits<uint32_t>::max()));
}

} // namespace

void LoadHistory::Add(int64_t timeUs, uint64_t activeUs, uint64_t waitingUs, uint64_t limitedUs)
{
   const Reading reading{timeUs, activeUs, waitingUs, limitedUs};
   if (_newest && timeUs < _newest->timeUs) {
      _samples.clear(); // they end in the future and would not expire
   }
   const std::optional<Sample> sample = _newest ? MakeSample(*_newest, reading) : std::nullopt;
   if (sample) {
      Append(*sample);
   }
   _newest = reading;
}

bool LoadHistory::IsEmpty() const
{
   return CountSamples() == 0;
}

HostCtl::Resource::CpuLoadHistory LoadHistory::Get() const
{
   HostCtl::Resource::CpuLoadHistory history;
   history.oneMinute = LoadOver(kMinuteUs);
   history.fiveMinutes = LoadOver(5 * kMinuteUs);
   history.fifteenMinutes = LoadOver(kKeptUs);
   history.sampleCount = CountSamples();
   history.samplePeriodMs = static_cast<uint32_t>(kSamplePeriodUs / 1000);
   return history;
}

std::optional<LoadHistory::Sample> LoadHistory::MakeSample(const Reading& from, const Reading& to)
{
   if (to.timeUs <= from.timeUs || to.timeUs - from.timeUs > kMaxGapUs ||
       to.activeUs < from.activeUs || to.waitingUs < from.waitingUs ||
       to.limitedUs < from.limitedUs) {
      return std::nullopt;
   }
   const int64_t elapsedUs = to.timeUs - from.timeUs;
   const uint64_t activeUs = to.activeUs - from.activeUs;
   const uint64_t runUs = SaturatingAdd(activeUs, to.waitingUs - from.waitingUs);
   return Sample{to.timeUs, Percent(activeUs, elapsedUs), Percent(runUs, elapsedUs),
                 Percent(to.limitedUs - from.limitedUs, elapsedUs)};
}

void LoadHistory::Append(const Sample& sample)
{
   if (_samples.size() < kMaxSamples) {
      _samples.push_back(sample);
      _oldest = 0;
      return;
   }
   _samples[_oldest] = sample;
   _oldest = (_oldest + 1) % kMaxSamples;
}

bool LoadHistory::IsWithin(const Sample& sample, int64_t periodUs) const
{
   return _newest->timeUs - sample.timeUs < periodUs;
}

HostCtl::Resource::CpuLoad LoadHistory::LoadOver(int64_t periodUs) const
{
   HostCtl::Resource::CpuLoad load;
   uint64_t count = 0;
   uint64_t active = 0;
   uint64_t run = 0;
   uint64_t limited = 0;
   for (const Sample& sample : _samples) {
      if (!IsWithin(sample, periodUs)) {
         continue;
      }
      ++count;
      active += sample.active;
      run += sample.run;
      limited += sample.limited;
      load.activePeak = std::max(load.activePeak, sample.active);
      load.runPeak = std::max(load.runPeak, sample.run);
   }
   if (count == 0) {
      return load;
   }
   load.activeAverage = static_cast<uint32_t>(active / count);
   load.runAverage = static_cast<uint32_t>(run / count);
   load.maxLimited = static_cast<uint32_t>(limited / count);
   return load;
}

uint32_t LoadHistory::CountSamples() const
{
   return static_cast<uint32_t>(
      std::count_if(_samples.begin(), _samples.end(),
                    [this](const Sample& sample) { return IsWithin(sample, kKeptUs); }));
}

} // namespace LinuxHost
