#pragma once

#include <span>

namespace QshFramework {

class TessQshState;

constexpr int kPluginInterfaceVersion = 5;
constexpr char kPluginEntryName[] = "GetQshPluginEntry";

/// Runs a command. `name` is the command's name without its path, `argv` the words after it as they
/// were typed, options included. Returns the status, 0 for success; must not throw.
using CommandHandler = int (*)(TessQshState* state, const char* name, int argc,
                               const char* const* argv);

struct Argument {
   const char* name;
   const char* type; ///< shown by help: "string", "int"
   const char* description;
   bool isRequired; ///< required ones come first
};

/// Flag: help and completion list the command.
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

/// The description of a plug-in and its commands.
///
/// Ownership: the plug-in owns it and everything that it points to, as static data of its library.
struct PluginDesc {
   int interfaceVersion; ///< must stay first: if it differs, nothing else is read
   const char* name;
   const char* summary;
   const char* help;
   std::span<const CommandGroup> groups;
};

/// The function that a plug-in's library exports as kPluginEntryName.
using PluginEntry = const PluginDesc* (*)();

} // namespace QshFramework
