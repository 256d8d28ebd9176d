#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QshFramework {

using Words = std::vector<std::string>;

/// Takes a line apart into its commands, and each of them into words.
///
/// Blanks separate words and semicolons commands; a command without words is left out. Single
/// quotes keep everything as it is, double quotes everything but a backslash before '"' or '\';
/// outside of quotes a backslash keeps the next character. '' is an empty word. A line that starts
/// with "#" has no commands.
///
/// Errors: CommandError, for the line as a whole, where a quote is not closed, a backslash is the
/// last character, or there is a zero byte.
std::vector<Words> SplitCommandLine(std::string_view line);

} // namespace QshFramework
