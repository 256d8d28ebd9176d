#pragma once

#include "corvax/dateTime.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace Agentctl {

/// Printed for a value that is not set.
constexpr char kUnsetText[] = "-";

std::string FormatNumber(const std::optional<int64_t>& value);

/// "12.34" for 1234 hundredths.
std::string FormatHundredths(int64_t hundredths);

/// "2026-11-21 10:05:00" in local time or in UTC.
std::string FormatTime(Corvax::DateTime time, bool utc);

/// The short form of one of the API's words, or the word itself if the table does not have it.
std::string Shorten(const std::string& word, const std::map<std::string, std::string>& shortForms);

} // namespace Agentctl
