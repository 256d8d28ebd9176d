#pragma once

#include "qsh/framework/commandLine.h"
#include "qsh/framework/plugin.h"
#include "qsh/framework/state.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace QshFramework {

/// The shell itself: knows the plug-ins, runs command lines, and remembers how they went.
///
/// Commands are called by their group's path and their name ("metrix/statsDepot/load"). Its own are
/// `help [COMMAND|GROUP/]`, `quit` and `exit`.
///
/// Ownership: none of streams and plug-ins, which must outlive it.
class TessQshInternalState : public TessQshState {
public:
   TessQshInternalState(std::ostream& out, std::ostream& err) : _out(out), _err(err) {}

   /// Runtime exception, with nothing added, when the plug-in is made for another version of the
   /// interface, is incomplete, or has a command that is there already.
   void AddPlugin(const PluginDesc& plugin);

   /// Runs the commands of a line, each even if one before it failed, up to the end of the session.
   /// A line that cannot be taken apart fails as a whole.
   void RunLine(std::string_view line);

   /// Whether quit or exit was given.
   bool IsOver() const { return _isOver; }
   /// Whether any command or line has failed so far.
   bool HasFailed() const { return _hasFailed; }

   /// Every command that is listed, those of the shell included; for help's argument without
   /// those, but with the groups' paths.
   std::vector<std::string> GetCommandPaths() const;
   std::vector<std::string> GetHelpTopics() const;

   void Print(const std::string& message) override;
   void PrintError(const std::string& message) override;

private:
   void RunCommand(const Words& words);
   int Execute(const Words& words);
   const Command& FindCommand(const std::string& path) const;
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
