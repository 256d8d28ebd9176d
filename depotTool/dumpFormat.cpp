#include "depotTool/dumpFormat.h"

#include <charconv>

namespace DepotTool::DumpFormat {

namespace {

bool IsPlain(char c)
{
   return c > ' ' && c < '\x7f' && c != '\\';
}

} // namespace

std::string Escape(std::string_view name)
{
   constexpr char kDigits[] = "0123456789abcdef";
   std::string text;
   for (const char c : name) {
      if (IsPlain(c)) {
         text += c;
      } else {
         const auto byte = static_cast<unsigned char>(c);
         text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
      }
   }
   return text;
}

bool Unescape(std::string_view text, std::string& name)
{
   name.clear();
   for (size_t i = 0; i < text.size(); ++i) {
      if (IsPlain(text[i])) {
         name += text[i];
         continue;
      }
      const std::string_view escape = text.substr(i, 4);
      unsigned byte = 0;
      if (escape.size() != 4 || !escape.starts_with("\\x") ||
          std::from_chars(&escape[2], escape.data() + 4, byte, 16).ptr != escape.data() + 4) {
         return false;
      }
      name += static_cast<char>(byte);
      i += 3;
   }
   return true;
}

} // namespace DepotTool::DumpFormat
