#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QshFramework {

using Words = std::vector<std::string>;

/// Splits a line into commands and each command into words.
///
/// Blanks separate words, semicolons separate commands; empty commands are skipped. Text in single
/// quotes is literal. In double quotes a backslash escapes '"' and '\', outside of quotes any
/// character. '' is an empty word. A line whose first non-blank is "#" has no commands.
///
/// Errors: CommandError if a quote is not closed, the last character is an unescaped backslash or
/// there is a zero byte. Then none of the commands is returned.
std::vector<Words> SplitCommandLine(std::string_view line);

} // namespace QshFramework
