#pragma once

#include "qsh/framework/commandLine.h"
#include "qsh/framework/plugin.h"
#include "qsh/framework/state.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace QshFramework {

/// The shell itself: knows the plug-ins, runs command lines and records failures.
///
/// A command is called by its group's path and its name ("metrix/statsDepot/load"). Built-in
/// commands are `help [COMMAND|GROUP/]`, `quit` and `exit`.
///
/// Ownership: streams and plug-ins are not owned and must outlive it.
class TessQshInternalState : public TessQshState {
public:
   TessQshInternalState(std::ostream& out, std::ostream& err) : _out(out), _err(err) {}

   /// CommandError, with nothing added, if the plug-in has another interface version, a command
   /// without a handler, or a command that already exists.
   void AddPlugin(const PluginDesc& plugin);

   /// Runs the commands of a line up to `quit` or `exit`, continuing after failed ones. If the line
   /// cannot be split into commands, none runs.
   void RunLine(std::string_view line);

   /// Whether quit or exit was given.
   bool IsOver() const { return _isOver; }
   /// Whether any command or line has failed.
   bool HasFailed() const { return _hasFailed; }

   /// Words that can follow these words of a command: without any, the paths of all listed
   /// commands; after "help", its topics.
   std::vector<std::string> GetCompletions(const std::string& wordsBefore) const;

   void Print(const std::string& message) override;
   void PrintError(const std::string& message) override;

private:
   void RunCommand(const Words& words);
   int Execute(const Words& words);
   const Command& FindCommand(const std::string& path) const;
   /// Null if there is none.
   const CommandGroup* FindGroup(const std::string& path) const;

   void PrintHelp(const Words& words);
   void PrintOverview();
   void PrintGroupHelp(const CommandGroup& group);
   void PrintCommandHelp(const std::string& path, const Command& command);

   std::ostream& _out;
   std::ostream& _err;
   std::vector<const PluginDesc*> _plugins;
   std::map<std::string, const Command*> _commands; ///< by path and name
   bool _isOver = false;
   bool _hasFailed = false;
};

} // namespace QshFramework
