#pragma once

#include <string>
#include <string_view>

namespace Console {

/// Makes a text safe to print on one line of a terminal: control characters, characters that change
/// the writing direction and bytes that are not UTF-8 are escaped, as "\x1b" or "\u{202e}".
std::string Printable(std::string_view text);

/// Number of terminal columns that a printable text takes; wide characters take two.
size_t CountColumns(std::string_view printable);

/// Truncates a printable text to this width; an ellipsis in the last column shows the cut.
std::string CutToColumns(std::string_view printable, size_t columns);

} // namespace Console
