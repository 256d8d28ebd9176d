#include "qsh/framework/cmdArgProcessor.h"

#include "corvax/format.h"
#include "qsh/framework/state.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string_view>

namespace QshFramework {

namespace {

using Corvax::Format;

bool IsOption(std::string_view word)
{
   return word.size() > 1 && word[0] == '-' && (word[1] < '0' || word[1] > '9');
}

} // namespace

CmdArgProcessor::CmdArgProcessor(std::span<const Argument> description, int argc,
                                 const char* const* argv)
   : _description(description)
{
   ParseOptions(argc, argv);
   if (!_isHelpRequested) {
      CheckCount();
   }
}

void CmdArgProcessor::ParseOptions(int argc, const char* const* argv)
{
   bool optionsEnded = false;
   for (int i = 0; i < argc; ++i) {
      const std::string_view word = argv[i];
      if (optionsEnded || !IsOption(word)) {
         _positional.emplace_back(word);
      } else if (word == "--") {
         optionsEnded = true;
      } else if (word == "-h" || word == "--help") {
         _isHelpRequested = true;
      } else {
         throw CommandError(Format("Unknown option: %1", word));
      }
   }
}

void CmdArgProcessor::CheckCount() const
{
   const auto firstOptional = std::ranges::find(_description, false, &Argument::isRequired);
   if (_positional.size() < static_cast<size_t>(firstOptional - _description.begin())) {
      throw CommandError("Insufficient arguments.");
   }
   // Most likely quotes are missing; the first word alone would name something else.
   if (_positional.size() > _description.size()) {
      throw CommandError("Too many arguments.");
   }
}

int32_t CmdArgProcessor::GetInt(size_t index) const
{
   const std::string& text = GetString(index);
   const char* const name = _description[index].name;
   char* end = nullptr;
   errno = 0;
   const long long number = std::strtoll(text.c_str(), &end, 0);
   if (end == text.c_str() || *end != '\0') {
      throw CommandError(Format("%1: '%2' is not an integer", name, text));
   }
   using Limits = std::numeric_limits<int32_t>;
   if (errno == ERANGE || number < Limits::min() || number > Limits::max()) {
      throw CommandError(
         Format("%1: %2 is not between %3 and %4", name, text, Limits::min(), Limits::max()));
   }
   return static_cast<int32_t>(number);
}

} // namespace QshFramework
