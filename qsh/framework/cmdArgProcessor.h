#pragma once

#include "qsh/framework/plugin.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QshFramework {

/// A command's words held against the description of its arguments.
///
/// Options are taken out first: "-h" and "--help", which every command has. "--" ends them; "-" and
/// what starts like a negative number is none. What is left are the positional arguments.
///
/// Errors: CommandError for an unknown option, and, unless help is wanted, for fewer positional
/// arguments than the description's leading required ones or more than it has.
class CmdArgProcessor {
public:
   CmdArgProcessor(std::span<const Argument> description, int argc, const char* const* argv);

   bool IsHelpWanted() const { return _isHelpWanted; }

   size_t GetCount() const { return _positional.size(); }
   const std::string& GetString(size_t index) const { return _positional.at(index); }
   /// A decimal, 0x hexadecimal or leading-zero octal number; CommandError, naming the argument,
   /// for any other text and for what 32 bits do not hold.
   int32_t GetInt(size_t index) const;

private:
   void ParseOptions(int argc, const char* const* argv);
   void CheckCount() const;

   const std::span<const Argument> _description;
   std::vector<std::string> _positional;
   bool _isHelpWanted = false;
};

} // namespace QshFramework
