#include "corvax/dateTime.h"

#include "corvax/system.h"

#include <chrono>
#include <cstdio>

namespace Corvax {

namespace {

namespace Chrono = std::chrono;

/// Consumes exactly `digits` decimal digits.
bool TakeNumber(std::string_view& text, size_t digits, int& value)
{
   if (text.size() < digits) {
      return false;
   }
   value = 0;
   for (const char c : text.substr(0, digits)) {
      if (c < '0' || c > '9') {
         return false;
      }
      value = value * 10 + (c - '0');
   }
   text.remove_prefix(digits);
   return true;
}

bool TakeChar(std::string_view& text, char c)
{
   if (text.empty() || text.front() != c) {
      return false;
   }
   text.remove_prefix(1);
   return true;
}

/// Digits beyond the sixth are dropped.
bool TakeFraction(std::string_view& text, int64_t& fractionUs)
{
   fractionUs = 0;
   if (!TakeChar(text, '.')) {
      return true;
   }
   int64_t unit = kMicrosecondsPerSecond / 10;
   size_t digits = 0;
   for (int digit = 0; TakeNumber(text, 1, digit); ++digits) {
      fractionUs += digit * unit;
      unit /= 10;
   }
   return digits > 0;
}

bool TakeOffset(std::string_view& text, int64_t& offsetSec)
{
   offsetSec = 0;
   if (TakeChar(text, 'Z')) {
      return true;
   }
   const bool west = !text.empty() && text.front() == '-';
   int hours = 0;
   int minutes = 0;
   if (!TakeChar(text, west ? '-' : '+') || !TakeNumber(text, 2, hours) || !TakeChar(text, ':') ||
       !TakeNumber(text, 2, minutes) || hours > 23 || minutes > 59) {
      return false;
   }
   offsetSec = (west ? -1 : 1) * (int64_t{hours} * 3600 + int64_t{minutes} * 60);
   return true;
}

} // namespace

DateTime DateTime::Now()
{
   return DateTime(System::GetTime());
}

namespace {

/// Overwrites `count` digits.
void PutDigits(std::string& text, size_t pos, size_t count, int number)
{
   for (size_t i = pos + count; i > pos; number /= 10) {
      text[--i] = static_cast<char>('0' + number % 10);
   }
}

} // namespace

std::string DateTime::ToString() const
{
   const Chrono::sys_time<Chrono::microseconds> instant{Chrono::microseconds(_utcUs)};
   const auto day = Chrono::floor<Chrono::days>(instant);
   const Chrono::year_month_day date(day);
   const int year = static_cast<int>(date.year());
   // The calendar's year has 16 bits and would wrap for distant instants.
   constexpr int64_t kYear0Us = -62167219200 * kMicrosecondsPerSecond;
   constexpr int64_t kYear10000Us = 253402300800 * kMicrosecondsPerSecond;
   if (_utcUs < kYear0Us || _utcUs >= kYear10000Us) {
      return std::to_string(_utcUs);
   }
   const Chrono::hh_mm_ss time(instant - day);
   std::string text = "0000-00-00T00:00:00Z";
   PutDigits(text, 0, 4, year);
   PutDigits(text, 5, 2, static_cast<int>(static_cast<unsigned>(date.month())));
   PutDigits(text, 8, 2, static_cast<int>(static_cast<unsigned>(date.day())));
   PutDigits(text, 11, 2, static_cast<int>(time.hours().count()));
   PutDigits(text, 14, 2, static_cast<int>(time.minutes().count()));
   PutDigits(text, 17, 2, static_cast<int>(time.seconds().count()));
   const auto fraction = static_cast<int>(time.subseconds().count());
   if (fraction != 0) {
      text.insert(19, ".000000");
      PutDigits(text, 20, 6, fraction);
   }
   return text;
}

bool DateTime::Parse(std::string_view text, DateTime& result)
{
   int year = 0;
   int month = 0;
   int day = 0;
   int hour = 0;
   int minute = 0;
   int second = 0;
   int64_t fractionUs = 0;
   int64_t offsetSec = 0;
   if (!TakeNumber(text, 4, year) || !TakeChar(text, '-') || !TakeNumber(text, 2, month) ||
       !TakeChar(text, '-') || !TakeNumber(text, 2, day) || !TakeChar(text, 'T') ||
       !TakeNumber(text, 2, hour) || !TakeChar(text, ':') || !TakeNumber(text, 2, minute) ||
       !TakeChar(text, ':') || !TakeNumber(text, 2, second) || !TakeFraction(text, fractionUs) ||
       !TakeOffset(text, offsetSec) || !text.empty()) {
      return false;
   }
   const Chrono::year_month_day date(Chrono::year(year),
                                     Chrono::month(static_cast<unsigned>(month)),
                                     Chrono::day(static_cast<unsigned>(day)));
   if (!date.ok() || hour > 23 || minute > 59 || second > 59) {
      return false;
   }
   const int64_t days = Chrono::sys_days(date).time_since_epoch().count();
   const int64_t seconds = days * 86400 + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
   result = DateTime((seconds - offsetSec) * kMicrosecondsPerSecond + fractionUs);
   return true;
}

} // namespace Corvax
