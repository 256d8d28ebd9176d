#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

/// The steps that parsers are made of. Any text is accepted.
namespace LinuxHost {

/// Removes the part before the next separator, and that separator, from the text; all of the text
/// where it has none.
inline std::string_view TakePart(std::string_view& text, char separator)
{
   const std::string_view part = text.substr(0, text.find(separator));
   text.remove_prefix(std::min(text.size(), part.size() + 1));
   return part;
}

/// Removes the next word, and the blanks before it, from the line; empty at the line's end.
inline std::string_view TakeWord(std::string_view& line)
{
   // Not find_first_of, which calls memchr for each character.
   const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
   const auto* const begin = std::find_if_not(line.begin(), line.end(), isBlank);
   const auto* const end = std::find_if(begin, line.end(), isBlank);
   const std::string_view word(begin, end);
   line.remove_prefix(static_cast<size_t>(end - line.begin()));
   return word;
}

/// A word that is a number and nothing else; one of more than 64 bits becomes the largest.
inline std::optional<uint64_t> ParseNumber(std::string_view word, int base = 10)
{
   uint64_t number = 0;
   const char* const end = word.data() + word.size();
   const auto result = std::from_chars(word.data(), end, number, base);
   if (result.ptr != end || result.ec == std::errc::invalid_argument) {
      return std::nullopt;
   }
   return result.ec == std::errc() ? number : std::numeric_limits<uint64_t>::max();
}

/// Whether the name is the stem with digits behind it, as "loop7".
inline bool IsNumbered(std::string_view name, std::string_view stem)
{
   return name.size() > stem.size() && name.starts_with(stem) &&
          name.find_first_not_of("0123456789", stem.size()) == std::string_view::npos;
}

/// ASCII letters alone: units and UUIDs do not depend on a locale.
inline std::string LowerCase(std::string_view text)
{
   std::string result(text);
   for (char& letter : result) {
      if (letter >= 'A' && letter <= 'Z') {
         letter = static_cast<char>(letter - 'A' + 'a');
      }
   }
   return result;
}

/// A number in lines of a key, blanks and a number.
template <class Figures>
struct KeyedNumber {
   std::string_view key;
   std::optional<uint64_t> Figures::* value;
};

/// Keys that are not among the fields are skipped; unset where a key is missing or has no number.
template <class Figures, size_t Count>
Figures ParseKeyedNumbers(std::string_view text, const KeyedNumber<Figures> (&fields)[Count])
{
   Figures figures;
   while (!text.empty()) {
      std::string_view line = TakePart(text, '\n');
      const std::string_view key = TakeWord(line);
      const auto field = std::find_if(std::begin(fields), std::end(fields),
                                      [key](const auto& one) { return one.key == key; });
      if (field != std::end(fields)) {
         figures.*(field->value) = ParseNumber(TakeWord(line));
      }
   }
   return figures;
}

} // namespace LinuxHost
