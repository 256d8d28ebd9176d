#pragma once

#include "qsh/framework/plugin.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QshFramework {

/// Checks a command's words against the description of its arguments.
///
/// Every command has the options "-h" and "--help". "--" ends the options; "-" alone and words that
/// start like a negative number are not options. All other words are positional arguments.
///
/// Errors: CommandError for an unknown option and, unless help is requested, for fewer positional
/// arguments than the leading required ones of the description or for more than it has.
class CmdArgProcessor {
public:
   CmdArgProcessor(std::span<const Argument> description, int argc, const char* const* argv);

   bool IsHelpRequested() const { return _isHelpRequested; }

   size_t GetCount() const { return _positional.size(); }
   const std::string& GetString(size_t index) const { return _positional.at(index); }
   /// Parses a decimal, 0x hexadecimal or leading-zero octal number. CommandError, naming the
   /// argument, for any other text and for numbers that do not fit in 32 bits.
   int32_t GetInt(size_t index) const;

private:
   void ParseOptions(int argc, const char* const* argv);
   void CheckCount() const;

   const std::span<const Argument> _description;
   std::vector<std::string> _positional;
   bool _isHelpRequested = false;
};

} // namespace QshFramework
