#pragma once

#include <span>

namespace QshFramework {

class TessQshState;

constexpr int kPluginInterfaceVersion = 5;
constexpr char kPluginEntryName[] = "GetQshPluginEntry";

/// Does a command. `name` is the command's name without its path, `argv` the words behind it as
/// they were typed, options included. Returns the status, 0 when it succeeded; lets no exception
/// out.
using CommandHandler = int (*)(TessQshState* state, const char* name, int argc,
                               const char* const* argv);

struct Argument {
   const char* name;
   const char* type; ///< a word for the reader: "string", "int"
   const char* description;
   bool isRequired; ///< required ones come first
};

/// Listed by help and completed; without it a command only runs.
constexpr int kCommandListed = 1;

struct Command {
   const char* name;
   CommandHandler handler;
   const char* help;
   int flags;
   std::span<const Argument> arguments; ///< positional, in this order
};

struct CommandGroup {
   const char* name;
   const char* path; ///< ends with "/"; a command is called by path and name
   std::span<const Command> commands;
   const char* summary;
   const char* help;
};

/// What a plug-in adds to the shell.
///
/// Ownership: it and all that it points to are the plug-in's and last as long as its library.
struct PluginDesc {
   int interfaceVersion; ///< stays the first field: nothing else is read where it differs
   const char* name;
   const char* summary;
   const char* help;
   std::span<const CommandGroup> groups;
};

/// What a plug-in's library exports under kPluginEntryName.
using PluginEntry = const PluginDesc* (*)();

} // namespace QshFramework
