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
constexpr int64_t kLeastLengthUs = LoadHistory::kSamplePeriodUs / 2;

/// Of all samples together the length is below 2^32 us, as Scale needs: 150 times two periods.
uint32_t Percent(uint64_t partUs, int64_t elapsedUs)
{
   const uint64_t percent = Scale(partUs, 100, static_cast<uint64_t>(elapsedUs));
   return static_cast<uint32_t>(std::min<uint64_t>(percent, std::numeric_limits<uint32_t>::max()));
}

} // namespace

void LoadHistory::Add(int64_t timeUs, uint64_t activeUs, uint64_t waitingUs, uint64_t limitedUs)
{
   const Reading reading{timeUs, {activeUs, waitingUs, limitedUs}};
   if (_newest && (timeUs < _newest->timeUs || activeUs < _newest->times.activeUs)) {
      _newest.reset();
      _samples.clear();
   }
   if (_newest && timeUs - _newest->timeUs < kLeastLengthUs) {
      return;
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

bool LoadHistory::IsStale(int64_t nowUs) const
{
   return !_newest || nowUs - _newest->timeUs > kMaxGapUs;
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
   if (to.timeUs - from.timeUs > kMaxGapUs || to.times.waitingUs < from.times.waitingUs ||
       to.times.limitedUs < from.times.limitedUs) {
      return std::nullopt;
   }
   return Sample{to.timeUs,
                 to.timeUs - from.timeUs,
                 {to.times.activeUs - from.times.activeUs,
                  to.times.waitingUs - from.times.waitingUs,
                  to.times.limitedUs - from.times.limitedUs}};
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
   int64_t lengthUs = 0;
   uint64_t activeUs = 0;
   uint64_t runUs = 0;
   uint64_t limitedUs = 0;
   for (const Sample& sample : _samples) {
      if (!IsWithin(sample, periodUs)) {
         continue;
      }
      const uint64_t sampleRunUs = SaturatingAdd(sample.times.activeUs, sample.times.waitingUs);
      lengthUs += sample.lengthUs;
      activeUs = SaturatingAdd(activeUs, sample.times.activeUs);
      runUs = SaturatingAdd(runUs, sampleRunUs);
      limitedUs = SaturatingAdd(limitedUs, sample.times.limitedUs);
      load.activePeak = std::max(load.activePeak, Percent(sample.times.activeUs, sample.lengthUs));
      load.runPeak = std::max(load.runPeak, Percent(sampleRunUs, sample.lengthUs));
   }
   if (lengthUs == 0) {
      return load;
   }
   load.activeAverage = Percent(activeUs, lengthUs);
   load.runAverage = Percent(runUs, lengthUs);
   load.maxLimited = Percent(limitedUs, lengthUs);
   return load;
}

uint32_t LoadHistory::CountSamples() const
{
   return static_cast<uint32_t>(
      std::count_if(_samples.begin(), _samples.end(),
                    [this](const Sample& sample) { return IsWithin(sample, kKeptUs); }));
}

} // namespace LinuxHost
