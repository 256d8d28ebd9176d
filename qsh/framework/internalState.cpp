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

/// "PATH ARGUMENT...", optional arguments in brackets.
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

/// Help texts end with a line feed, which Print adds again.
std::string WithoutLineEnd(std::string text)
{
   if (text.ends_with('\n')) {
      text.pop_back();
   }
   return text;
}

std::string GetPath(const CommandGroup& group, const Command& command)
{
   return std::string(group.path) + command.name;
}

bool IsListed(const Command& command)
{
   return (command.flags & kCommandListed) != 0;
}

} // namespace

void TessQshInternalState::AddPlugin(const PluginDesc& plugin)
{
   if (plugin.interfaceVersion != kPluginInterfaceVersion) {
      throw CommandError(Format("The plug-in's interface version is %1, the shell's is %2",
                                plugin.interfaceVersion, kPluginInterfaceVersion));
   }
   auto commands = _commands;
   for (const CommandGroup& group : plugin.groups) {
      for (const Command& command : group.commands) {
         const std::string path = GetPath(group, command);
         if (command.handler == nullptr) {
            throw CommandError(Format("Plug-in %1 has no handler for %2", plugin.name, path));
         }
         if (!commands.emplace(path, &command).second) {
            throw CommandError(
               Format("Command %1 of plug-in %2 already exists", path, plugin.name));
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
   int status = kCommandFailed; // in case of an exception
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
   if (CmdArgProcessor(command.arguments, argc, argv.data()).IsHelpRequested()) {
      PrintCommandHelp(path, command);
      return kCommandDone;
   }
   return command.handler(this, command.name, argc, argv.data());
}

const Command& TessQshInternalState::FindCommand(const std::string& path) const
{
   const auto found = _commands.find(path);
   if (found == _commands.end()) {
      throw CommandError(Format("Unknown command: %1 (help lists the commands)", path));
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

std::vector<std::string> TessQshInternalState::GetCompletions(const std::string& wordsBefore) const
{
   std::vector<std::string> completions;
   if (wordsBefore.empty()) {
      completions = {kExit, kHelp, kQuit};
   } else if (wordsBefore == kHelp) {
      for (const PluginDesc* plugin : _plugins) {
         for (const CommandGroup& group : plugin->groups) {
            completions.emplace_back(group.path);
         }
      }
   } else {
      return completions;
   }
   for (const auto& [path, command] : _commands) {
      if (IsListed(*command)) {
         completions.push_back(path);
      }
   }
   return completions;
}

void TessQshInternalState::Print(const std::string& message)
{
   _out << message << '\n';
}

void TessQshInternalState::PrintError(const std::string& message)
{
   // Keeps the order of the messages if both streams go to one place.
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
               Print("  " + Usage(GetPath(group, command), command));
            }
         }
      }
      Print("");
   }
   Print(Format("Built-in commands:\n  %1 [COMMAND|GROUP/]\n  %2, %3", kHelp, kQuit, kExit));
}

void TessQshInternalState::PrintGroupHelp(const CommandGroup& group)
{
   Print(WithoutLineEnd(group.help));
   for (const Command& command : group.commands) {
      if (IsListed(command)) {
         Print(Format("\n%1\n  %2", Usage(GetPath(group, command), command),
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
