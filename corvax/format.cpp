#include "corvax/format.h"

#include <cstdio>

namespace Corvax {

std::string ToText(double value)
{
   char text[32];
   std::snprintf(text, sizeof text, "%g", value);
   return text;
}

std::string FormatArguments(std::string_view pattern, std::initializer_list<std::string> arguments)
{
   std::string result;
   result.reserve(pattern.size() + 32);
   for (size_t i = 0; i < pattern.size(); ++i) {
      if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] >= '1' &&
          pattern[i + 1] <= '9') {
         const auto number = static_cast<size_t>(pattern[i + 1] - '1');
         if (number < arguments.size()) {
            result += arguments.begin()[number];
            ++i;
            continue;
         }
      }
      result += pattern[i];
   }
   return result;
}

} // namespace Corvax
