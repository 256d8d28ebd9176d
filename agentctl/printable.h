#pragma once

#include "corvax/dateTime.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agentctl {

/// A text as a terminal may be given it, on one line: control characters, those that change the
/// direction of writing, and bytes that are no UTF-8 come as "\x1b" or "\u{202e}".
std::string Printable(std::string_view text);

/// The columns of a terminal that a printable text takes; wide characters take two.
size_t CountColumns(std::string_view printable);

/// Cuts a printable text to so many columns; a cut is shown by an ellipsis in the last one.
std::string CutToColumns(std::string_view printable, size_t columns);

/// "12.34" for 1234 hundredths.
std::string FormatHundredths(int64_t hundredths);

/// "2026-11-21 10:05:00" in local time, or in UTC.
std::string FormatTime(Corvax::DateTime time, bool utc);

} // namespace Agentctl
