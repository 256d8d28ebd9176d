#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// A depot as text: a line per interval, span of columns, stat, series and span of samples.
///
///    metrix-depot dump 1
///    interval NAME PERIOD COLUMNS          finest first
///    columns FIRST-TIME COUNT              of that interval, a period apart, oldest first
///    stat ENTITY NAME TYPE FACTOR ROLLUP...   sorted by entity and name; the first rollup is
///    "none" samples INTERVAL ROLLUP               of that stat TIME VALUE... values of that
///    series, a period apart end STATS                             the number of stats
///
/// Fields are separated by one space. Names are escaped: bytes other than the printable ones of
/// ASCII, blanks and backslashes are "\xNN". A missing sample has no value: the next one starts
/// another line.
namespace DepotTool::DumpFormat {

constexpr std::string_view kFirstLine = "metrix-depot dump 1";
constexpr std::string_view kInterval = "interval";
constexpr std::string_view kColumns = "columns";
constexpr std::string_view kStat = "stat";
constexpr std::string_view kSamples = "samples";
constexpr std::string_view kEnd = "end";
/// Most values of a line, which stays readable in an editor.
constexpr size_t kMostValues = 60;

std::string Escape(std::string_view name);
/// False, with `name` undefined, for text that Escape does not write.
bool Unescape(std::string_view text, std::string& name);

} // namespace DepotTool::DumpFormat
