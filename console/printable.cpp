#include "console/printable.h"

#include <clocale>
#include <cstdio>
#include <cwchar>

namespace Console {

namespace {

/// Switches the calling thread to UTF-8, whatever the user's locale is. If the system has no UTF-8
/// locale, only ASCII counts as printable.
class Utf8Scope {
public:
   Utf8Scope()
   {
      static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
      _before = ::uselocale(utf8);
   }
   ~Utf8Scope() { ::uselocale(_before); }
   Utf8Scope(const Utf8Scope&) = delete;
   Utf8Scope& operator=(const Utf8Scope&) = delete;

private:
   locale_t _before;
};

struct Glyph {
   char32_t character; ///< the byte itself if it is not UTF-8
   size_t bytes;
   int columns; ///< negative: not printable
};

/// Invisible characters that can make the text around them look like something else.
bool ChangesDirection(wchar_t c)
{
   return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
          (c >= 0x2066 && c <= 0x2069);
}

/// The first character of a text that is not empty. Requires a Utf8Scope.
Glyph FirstGlyph(std::string_view text)
{
   wchar_t c = 0;
   mbstate_t state = {};
   const size_t bytes = std::mbrtowc(&c, text.data(), text.size(), &state);
   if (bytes == 0 || bytes > text.size()) { // a zero byte or invalid UTF-8
      return {static_cast<unsigned char>(text.front()), 1, -1};
   }
   return {static_cast<char32_t>(c), bytes, ChangesDirection(c) ? -1 : ::wcwidth(c)};
}

} // namespace

std::string Printable(std::string_view text)
{
   const Utf8Scope utf8;
   std::string result;
   while (!text.empty()) {
      const Glyph glyph = FirstGlyph(text);
      if (glyph.columns >= 0) {
         result += text.substr(0, glyph.bytes);
      } else {
         char escaped[16];
         const auto code = static_cast<unsigned>(glyph.character);
         std::snprintf(escaped, sizeof escaped, code < 0x100 ? "\\x%02x" : "\\u{%x}", code);
         result += escaped;
      }
      text.remove_prefix(glyph.bytes);
   }
   return result;
}

size_t CountColumns(std::string_view printable)
{
   const Utf8Scope utf8;
   size_t columns = 0;
   while (!printable.empty()) {
      const Glyph glyph = FirstGlyph(printable);
      columns += glyph.columns > 0 ? static_cast<size_t>(glyph.columns) : 0;
      printable.remove_prefix(glyph.bytes);
   }
   return columns;
}

std::string CutToColumns(std::string_view printable, size_t columns)
{
   if (CountColumns(printable) <= columns) {
      return std::string(printable);
   }
   if (columns == 0) {
      return {};
   }
   const Utf8Scope utf8;
   size_t used = 1; // the ellipsis
   std::string result;
   while (!printable.empty()) {
      const Glyph glyph = FirstGlyph(printable);
      used += glyph.columns > 0 ? static_cast<size_t>(glyph.columns) : 0;
      if (used > columns) {
         break;
      }
      result += printable.substr(0, glyph.bytes);
      printable.remove_prefix(glyph.bytes);
   }
   return result + "…";
}

} // namespace Console
