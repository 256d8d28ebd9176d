#include "agentctl/valueFormat.h"

#include "corvax/format.h"

#include <cstdio>
#include <ctime>

namespace Agentctl {

std::string FormatNumber(const std::optional<int64_t>& value)
{
   return value ? Corvax::ToText(*value) : kUnsetText;
}

std::string FormatHundredths(int64_t hundredths)
{
   const bool isNegative = hundredths < 0;
   // Negated as unsigned, since the smallest integer has no positive counterpart.
   const uint64_t size =
      isNegative ? 0 - static_cast<uint64_t>(hundredths) : static_cast<uint64_t>(hundredths);
   char decimals[8];
   std::snprintf(decimals, sizeof decimals, ".%02u", static_cast<unsigned>(size % 100));
   return (isNegative ? "-" : "") + Corvax::ToText(size / 100) + decimals;
}

std::string FormatTime(Corvax::DateTime time, bool utc)
{
   const int64_t us = time.GetUtcMicroseconds();
   const bool roundsUp = us % Corvax::kMicrosecondsPerSecond < 0; // division truncates towards 0
   const auto seconds =
      static_cast<time_t>(us / Corvax::kMicrosecondsPerSecond - (roundsUp ? 1 : 0));
   tm fields = {};
   if ((utc ? ::gmtime_r(&seconds, &fields) : ::localtime_r(&seconds, &fields)) == nullptr) {
      return time.ToString();
   }
   char text[64];
   const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
   return std::string(text, length);
}

std::string Shorten(const std::string& word, const std::map<std::string, std::string>& shortForms)
{
   const auto found = shortForms.find(word);
   return found == shortForms.end() ? word : found->second;
}

} // namespace Agentctl
