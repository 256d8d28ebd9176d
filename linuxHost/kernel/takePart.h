#pragma once

#include <algorithm>
#include <string_view>

namespace LinuxHost {

/// Takes the part before the next separator, and that separator, off the text; all of the text
/// where it has none.
inline std::string_view TakePart(std::string_view& text, char separator)
{
   const std::string_view part = text.substr(0, text.find(separator));
   text.remove_prefix(std::min(text.size(), part.size() + 1));
   return part;
}

} // namespace LinuxHost
