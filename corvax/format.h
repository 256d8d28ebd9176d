#pragma once

#include <charconv>
#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace Corvax {

inline std::string ToText(std::string_view value)
{
   return std::string(value);
}
inline std::string ToText(const char* value)
{
   return value;
}
std::string ToText(double value);

template <class T>
   requires(std::integral<T> || std::is_enum_v<T>)
std::string ToText(T value)
{
   if constexpr (std::is_enum_v<T>) {
      return ToText(static_cast<std::underlying_type_t<T>>(value));
   } else if constexpr (std::same_as<T, bool>) {
      return value ? "true" : "false";
   } else {
      char digits[24];
      const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
      return std::string(digits, end);
   }
}

/// Replaces %1 to %9 in the pattern by the arguments. A "%1" inside an argument is left as it is,
/// and so is a placeholder without an argument.
std::string FormatArguments(std::string_view pattern, std::initializer_list<std::string> arguments);

template <class... Args>
std::string Format(std::string_view pattern, const Args&... args)
{
   return FormatArguments(pattern, {ToText(args)...});
}

} // namespace Corvax
