#include "managementApi/requestText.h"

#include "corvax/clock.h"
#include "corvax/format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace ManagementApi {

namespace {

using Corvax::DateTime;
using Corvax::Format;
using Corvax::kMicrosecondsPerSecond;
using CounterInfo = Quen::PerformanceManager::CounterInfo;

template <class T>
bool ParseNumber(std::string_view text, T& number)
{
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
   return error == std::errc() && end == text.data() + text.size();
}

// From the epoch, and from now: keeps microseconds within 64 bits.
constexpr int64_t kMostSeconds = 253402300799; // to the end of the year 9999

/// False if the text is not a number of seconds or is out of range.
bool ParseEpoch(std::string_view text, DateTime& time)
{
   double seconds = 0;
   if (!ParseNumber(text, seconds) || !(std::abs(seconds) <= kMostSeconds)) { // not for a NaN
      return false;
   }
   time = DateTime(static_cast<int64_t>(std::llround(seconds * kMicrosecondsPerSecond)));
   return true;
}

/// "-10m". False for any other text.
bool ParseRelative(std::string_view text, DateTime now, DateTime& time)
{
   constexpr std::string_view kUnits = "smhd";
   constexpr int64_t kUnitSec[] = {1, 60, 3600, 86400};
   const size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
   int32_t count = 0;
   if (unit == std::string_view::npos || text.front() != '-' ||
       !ParseNumber(text.substr(0, text.size() - 1), count)) {
      return false;
   }
   const int64_t seconds = count * kUnitSec[unit];
   if (seconds < -kMostSeconds) {
      return false;
   }
   time = DateTime(now.GetUtcMicroseconds() + seconds * kMicrosecondsPerSecond);
   return true;
}

std::vector<std::string> Split(const std::string& text, char separator)
{
   std::vector<std::string> parts{""};
   for (const char c : text) {
      if (c == separator) {
         parts.emplace_back();
      } else {
         parts.back() += c;
      }
   }
   return parts;
}

bool HasName(const CounterInfo& counter, const std::vector<std::string>& name)
{
   return name.size() >= 2 && counter.groupInfo->key == name[0] && counter.nameInfo->key == name[1];
}

/// `name` is group, name and perhaps rollup. Without a rollup the composite counter is preferred.
const CounterInfo* FindCounterByName(const std::vector<std::string>& name, const Counters& counters)
{
   const CounterInfo* found = nullptr;
   for (const auto& counter : counters) {
      if (!HasName(*counter, name)) {
         continue;
      }
      if (name.size() == 3 && name[2] == RollupName(counter->rollupType)) {
         return counter.Get();
      }
      if (name.size() == 2 && (found == nullptr || counter->rollupType == CounterInfo::none)) {
         found = counter.Get();
      }
   }
   return found;
}

/// Whether "group.name" without a rollup is this counter.
bool IsDefaultCounter(const CounterInfo& counter, const Counters& counters)
{
   return FindCounterByName({counter.groupInfo->key, counter.nameInfo->key}, counters) == &counter;
}

} // namespace

Http::Refusal BadArgument(const std::string& argument, const std::string& reason)
{
   return Http::Refusal(400, argument + ": " + reason);
}

const CounterInfo* FindCounter(int32_t counterId, const Counters& counters)
{
   const auto found = std::ranges::find_if(
      counters, [counterId](const auto& counter) { return counter->key == counterId; });
   return found == counters.end() ? nullptr : found->Get();
}

const char* RollupName(CounterInfo::RollupType rollup)
{
   constexpr const char* kNames[] = {"average", "maximum",   "minimum",
                                     "latest",  "summation", "none"};
   return kNames[rollup];
}

const char* StatsTypeName(CounterInfo::StatsType type)
{
   constexpr const char* kNames[] = {"absolute", "delta", "rate"};
   return kNames[type];
}

DateTime ParseTime(const std::string& argument, std::string_view text, DateTime now)
{
   DateTime time = now;
   if (text == "now" || ParseRelative(text, now, time) || ParseEpoch(text, time) ||
       DateTime::Parse(text, time)) {
      return time;
   }
   throw BadArgument(argument,
                     Format("'%1' is not a time; use RFC 3339 (2026-11-21T09:05:00Z), seconds "
                            "since the epoch, now, or a time before now such as -10m",
                            text));
}

int32_t ParseInt(const std::string& argument, std::string_view text)
{
   int32_t number = 0;
   if (!ParseNumber(text, number)) {
      throw BadArgument(argument, Format("'%1' is not a 32-bit integer", text));
   }
   return number;
}

Corvax::Ref<MetricId> ParseMetric(const std::string& argument, const std::string& text,
                                  const Counters& counters)
{
   const size_t colon = text.find(':');
   const std::string name = text.substr(0, colon);
   const std::string instance = colon == std::string::npos ? "" : text.substr(colon + 1);
   int32_t counterId = 0;
   const CounterInfo* const counter = ParseNumber(name, counterId)
                                         ? FindCounter(counterId, counters)
                                         : FindCounterByName(Split(name, '.'), counters);
   if (counter == nullptr) {
      throw BadArgument(argument,
                        Format("'%1' does not name a counter; use group.name[.rollup][:instance] "
                               "or a counter number",
                               text));
   }
   return Corvax::MakeRef<MetricId>(counter->key, instance);
}

std::string FormatMetric(const MetricId& metricId, const Counters& counters)
{
   const CounterInfo* const counter = FindCounter(metricId.counterId, counters);
   std::string text = std::to_string(metricId.counterId);
   if (counter != nullptr) {
      text = counter->groupInfo->key + "." + counter->nameInfo->key;
      if (!IsDefaultCounter(*counter, counters)) {
         text += std::string(".") + RollupName(counter->rollupType);
      }
   }
   return metricId.instance.empty() ? text : text + ":" + metricId.instance;
}

} // namespace ManagementApi
