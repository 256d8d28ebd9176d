#pragma once

#include <charconv>
#include <concepts>
#include <ostream>
#include <string>
#include <string_view>

namespace DepotTool {

/// Nobody reads the output any more.
struct OutputClosed {};

/// Text on its way to a stream, handed over in blocks.
class TextOutput {
public:
   explicit TextOutput(std::ostream& stream) : _stream(stream) {}

   TextOutput& operator<<(std::string_view text)
   {
      _text += text;
      return *this;
   }
   TextOutput& operator<<(std::integral auto number)
   {
      char digits[24];
      return *this << std::string_view(digits,
                                       std::to_chars(digits, digits + sizeof digits, number).ptr);
   }
   /// Also hands over a full block.
   void EndLine();
   /// Hands over what there is. OutputClosed if the stream does not take it.
   void Flush();

private:
   std::ostream& _stream;
   std::string _text;
};

} // namespace DepotTool
