#include "qsh/framework/internalState.h"

#include "corvax/format.h"
#include "qsh/framework/cmdArgProcessor.h"

#include <algorithm>
#include <utility>

namespace QshFramework {

namespace {

using Corvax::Format;

constexpr char kHelp[] = "help";
constexpr char kQuit[] = "quit";
constexpr char kExit[] = "exit";

/// "PATH ARGUMENT..."; what may be left out stands in brackets.
std::string Usage(const std::string& path, const Command& command)
{
   std::string usage = path;
   for (const Argument& argument : command.arguments) {
      usage += Format(argument.isRequired ? " %1" : " [%1]", argument.name);
   }
   return usage;
}

std::string Padded(std::string text, size_t width)
{
   text.resize(std::max(text.size(), width), ' ');
   return text;
}

/// Help texts end with a line feed of their own.
std::string WithoutLineEnd(std::string text)
{
   if (text.ends_with('\n')) {
      text.pop_back();
   }
   return text;
}

bool IsListed(const Command& command)
{
   return (command.flags & kCommandListed) != 0;
}

} // namespace

void TessQshInternalState::AddPlugin(const PluginDesc& plugin)
{
   if (plugin.interfaceVersion != kPluginInterfaceVersion) {
      throw CommandError(Format("The plug-in has interface version %1, the shell has %2",
                                plugin.interfaceVersion, kPluginInterfaceVersion));
   }
   auto commands = _commands;
   for (const CommandGroup& group : plugin.groups) {
      for (const Command& command : group.commands) {
         const std::string path = std::string(group.path) + command.name;
         if (command.handler == nullptr) {
            throw CommandError(Format("Plug-in %1 has no handler for %2", plugin.name, path));
         }
         if (!commands.emplace(path, &command).second) {
            throw CommandError(
               Format("Plug-in %1 has a command that is there already: %2", plugin.name, path));
         }
      }
   }
   _plugins.push_back(&plugin);
   _commands.swap(commands);
}

void TessQshInternalState::RunLine(std::string_view line)
{
   std::vector<Words> commands;
   if (RunGuarded(*this, [&] { commands = SplitCommandLine(line); }) != kCommandDone) {
      _hasFailed = true;
   }
   for (const Words& words : commands) {
      if (_isOver) {
         return;
      }
      RunCommand(words);
   }
}

void TessQshInternalState::RunCommand(const Words& words)
{
   int status = kCommandFailed; // unless the command comes to its end
   RunGuarded(*this, [&] { status = Execute(words); });
   if (status != kCommandDone) {
      _hasFailed = true;
   }
}

int TessQshInternalState::Execute(const Words& words)
{
   const std::string& path = words.front();
   if (path == kQuit || path == kExit) {
      _isOver = true;
      return kCommandDone;
   }
   if (path == kHelp) {
      PrintHelp(words);
      return kCommandDone;
   }
   const Command& command = FindCommand(path);
   std::vector<const char*> argv;
   for (size_t i = 1; i < words.size(); ++i) {
      argv.push_back(words[i].c_str());
   }
   const int argc = static_cast<int>(argv.size());
   argv.push_back(nullptr);
   if (CmdArgProcessor(command.arguments, argc, argv.data()).IsHelpWanted()) {
      PrintCommandHelp(path, command);
      return kCommandDone;
   }
   return command.handler(this, command.name, argc, argv.data());
}

const Command& TessQshInternalState::FindCommand(const std::string& path) const
{
   const auto found = _commands.find(path);
   if (found == _commands.end()) {
      throw CommandError(Format("Unknown command: %1 (help lists them)", path));
   }
   return *found->second;
}

const CommandGroup* TessQshInternalState::FindGroup(const std::string& path) const
{
   for (const PluginDesc* plugin : _plugins) {
      const auto found = std::ranges::find(plugin->groups, path, [](const CommandGroup& group) {
         return std::string_view(group.path);
      });
      if (found != plugin->groups.end()) {
         return &*found;
      }
   }
   return nullptr;
}

std::vector<std::string> TessQshInternalState::GetCommandPaths() const
{
   std::vector<std::string> paths = {kExit, kHelp, kQuit};
   for (const auto& [path, command] : _commands) {
      if (IsListed(*command)) {
         paths.push_back(path);
      }
   }
   return paths;
}

std::vector<std::string> TessQshInternalState::GetHelpTopics() const
{
   std::vector<std::string> topics;
   for (const PluginDesc* plugin : _plugins) {
      for (const CommandGroup& group : plugin->groups) {
         topics.emplace_back(group.path);
      }
   }
   for (const auto& [path, command] : _commands) {
      if (IsListed(*command)) {
         topics.push_back(path);
      }
   }
   return topics;
}

void TessQshInternalState::Print(const std::string& message)
{
   _out << message << '\n';
}

void TessQshInternalState::PrintError(const std::string& message)
{
   // Where both go to one place, they come in the order in which they were printed.
   _out.flush();
   _err << message << '\n' << std::flush;
}

void TessQshInternalState::PrintHelp(const Words& words)
{
   if (words.size() == 1) {
      PrintOverview();
      return;
   }
   const std::string& topic = words[1];
   if (const CommandGroup* const group = FindGroup(topic)) {
      PrintGroupHelp(*group);
   } else {
      PrintCommandHelp(topic, FindCommand(topic));
   }
}

void TessQshInternalState::PrintOverview()
{
   for (const PluginDesc* plugin : _plugins) {
      Print(Format("%1: %2", plugin->name, plugin->summary));
      for (const CommandGroup& group : plugin->groups) {
         Print(Format("\n%1: %2", group.path, group.summary));
         for (const Command& command : group.commands) {
            if (IsListed(command)) {
               Print("  " + Usage(std::string(group.path) + command.name, command));
            }
         }
      }
      Print("");
   }
   Print("The shell's own:\n"
         "  help [COMMAND|GROUP/]\n"
         "  quit, exit");
}

void TessQshInternalState::PrintGroupHelp(const CommandGroup& group)
{
   Print(WithoutLineEnd(group.help));
   for (const Command& command : group.commands) {
      if (IsListed(command)) {
         Print(Format("\n%1\n  %2", Usage(std::string(group.path) + command.name, command),
                      WithoutLineEnd(command.help)));
      }
   }
}

void TessQshInternalState::PrintCommandHelp(const std::string& path, const Command& command)
{
   Print(Usage(path, command));
   Print(WithoutLineEnd(command.help));
   size_t nameWidth = 0;
   size_t typeWidth = 0;
   for (const Argument& argument : command.arguments) {
      nameWidth = std::max(nameWidth, std::string_view(argument.name).size());
      typeWidth = std::max(typeWidth, std::string_view(argument.type).size());
   }
   for (const Argument& argument : command.arguments) {
      Print(Format("  %1  %2  %3", Padded(argument.name, nameWidth),
                   Padded(argument.type, typeWidth), argument.description));
   }
}

} // namespace QshFramework
