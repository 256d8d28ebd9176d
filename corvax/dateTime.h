#pragma once

#include "corvax/clock.h"

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Corvax {

/// An instant in UTC, counted in microseconds since the epoch.
class DateTime {
public:
   constexpr DateTime() = default;
   constexpr explicit DateTime(int64_t utcUs) : _utcUs(utcUs) {}
   static constexpr DateTime FromSeconds(int64_t seconds)
   {
      return DateTime(seconds * kMicrosecondsPerSecond);
   }
   static DateTime Now();

   constexpr int64_t GetUtcMicroseconds() const { return _utcUs; }

   /// ISO 8601 in UTC: "2026-11-21T09:05:00Z", with six decimals for a fraction of a second.
   /// Instants outside the years 0000 to 9999 are printed as microseconds.
   std::string ToString() const;

   /// Parses what ToString writes, and other offsets: "2026-11-21T10:05:00.5+01:00". False, with
   /// `result` unchanged, for any other text and for dates that do not exist.
   static bool Parse(std::string_view text, DateTime& result);

   friend constexpr auto operator<=>(const DateTime&, const DateTime&) = default;

private:
   int64_t _utcUs = 0;
};

} // namespace Corvax
