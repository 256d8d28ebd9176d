#include "qsh/framework/commandLine.h"

#include "corvax/format.h"
#include "qsh/framework/state.h"

#include <utility>

namespace QshFramework {

namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";

bool IsBlank(char c)
{
   return kBlanks.find(c) != std::string_view::npos;
}

class LineSplitter {
public:
   explicit LineSplitter(std::string_view line) : _line(line) {}

   std::vector<Words> Split()
   {
      for (; _position < _line.size(); ++_position) {
         const char c = _line[_position];
         if (c == ';') {
            EndCommand();
         } else if (IsBlank(c)) {
            EndWord();
         } else if (c == '\'' || c == '"') {
            TakeQuoted(c);
         } else {
            TakePlain(c);
         }
      }
      EndCommand();
      return std::move(_commands);
   }

private:
   void TakePlain(char c)
   {
      if (c == '\\') {
         ++_position;
         if (_position == _line.size()) {
            throw CommandError("The line ends with a backslash");
         }
      }
      _word += _line[_position];
      _isInWord = true;
   }

   /// Ends at the closing quote.
   void TakeQuoted(char quote)
   {
      _isInWord = true;
      while (++_position < _line.size() && _line[_position] != quote) {
         const std::string_view next = _line.substr(_position + 1, 1);
         if (quote == '"' && _line[_position] == '\\' && (next == "\"" || next == "\\")) {
            ++_position;
         }
         _word += _line[_position];
      }
      if (_position >= _line.size()) {
         throw CommandError(Corvax::Format("A quote is not closed: %1", std::string(1, quote)));
      }
   }

   void EndWord()
   {
      if (_isInWord) {
         _words.push_back(std::exchange(_word, {}));
         _isInWord = false;
      }
   }

   void EndCommand()
   {
      EndWord();
      if (!_words.empty()) {
         _commands.push_back(std::exchange(_words, {}));
      }
   }

   const std::string_view _line;
   size_t _position = 0;
   bool _isInWord = false; ///< a word may be empty
   std::string _word;
   Words _words;
   std::vector<Words> _commands;
};

} // namespace

std::vector<Words> SplitCommandLine(std::string_view line)
{
   const size_t start = line.find_first_not_of(kBlanks);
   if (start == std::string_view::npos || line[start] == '#') {
      return {};
   }
   // Handlers receive C strings, which would silently end at the zero.
   if (line.find('\0') != std::string_view::npos) {
      throw CommandError("The line contains a zero byte");
   }
   return LineSplitter(line).Split();
}

} // namespace QshFramework
