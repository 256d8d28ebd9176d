#include "corvax/application.h"
#include "corvax/exception.h"
#include "qsh/framework/internalState.h"
#include "qsh/lineEditor.h"
#include "qsh/options.h"
#include "qsh/pluginLibrary.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

namespace Qsh {

namespace {

using Corvax::Ref;
using QshFramework::TessQshInternalState;

/// The application object, with loggers that say errors only, for as long as the shell runs.
class ApplicationScope {
public:
   ApplicationScope()
   {
      const Ref<Corvax::LogManager> logManager = Corvax::NewLogManager();
      logManager->SetDefaultLevel("error");
      Ref<Corvax::XmlConfig> nothing;
      Corvax::GetXmlConfig("", nothing);
      Corvax::Service::SetApp(Corvax::NewApplication(logManager, Corvax::NewConfigStore(nothing)));
   }
   ~ApplicationScope() { Corvax::Service::SetApp(nullptr); }
   ApplicationScope(const ApplicationScope&) = delete;
   ApplicationScope& operator=(const ApplicationScope&) = delete;
};

void LoadPlugins(const Options& options, TessQshInternalState& shell)
{
   std::vector<std::string> fileNames = options.pluginFiles;
   if (fileNames.empty()) {
      fileNames.push_back(GetInstalledPluginFile());
   }
   for (const std::string& fileName : fileNames) {
      const QshFramework::PluginDesc& plugin = LoadPlugin(fileName);
      try {
         shell.AddPlugin(plugin);
      } catch (const Corvax::Exception& e) {
         throw Corvax::Exception(Corvax::Format("%1: %2", fileName, e.GetMessage()));
      }
   }
}

void RunScript(std::istream& script, TessQshInternalState& shell)
{
   std::string line;
   while (!shell.IsOver() && std::getline(script, line)) {
      shell.RunLine(line);
   }
}

/// Empty when there is no home to write to.
std::string HistoryFile()
{
   const char* const home = std::getenv("HOME");
   const bool isUsable = home != nullptr && *home != '\0' && ::access(home, W_OK) == 0;
   return isUsable ? std::string(home) + "/.qsh_history" : std::string();
}

void RunInteractive(TessQshInternalState& shell)
{
   LineEditor editor("qsh> ", HistoryFile(), [&shell](const std::string& wordsBefore) {
      if (wordsBefore.empty()) {
         return shell.GetCommandPaths();
      }
      return wordsBefore == "help" ? shell.GetHelpTopics() : std::vector<std::string>();
   });
   while (!shell.IsOver()) {
      const std::optional<std::string> line = editor.ReadLine();
      if (!line) {
         return;
      }
      shell.RunLine(*line);
      std::cout.flush();
   }
}

/// Returns the exit status. Who types has seen what failed; a script is told by the status.
int Run(const Options& options)
{
   const ApplicationScope application;
   TessQshInternalState shell(std::cout, std::cerr);
   LoadPlugins(options, shell);
   const bool isInteractive = !options.commands && ::isatty(STDIN_FILENO) == 1;
   if (isInteractive) {
      RunInteractive(shell);
   } else if (options.commands) {
      std::istringstream script(*options.commands);
      RunScript(script, shell);
   } else {
      RunScript(std::cin, shell);
   }
   if (!std::cout.flush()) {
      throw Corvax::Exception("Cannot write to standard output");
   }
   return shell.HasFailed() && !isInteractive ? kExitFailure : EXIT_SUCCESS;
}

int Main(int argc, char** argv)
{
   Options options;
   if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
      return *status;
   }
   Corvax::OutOfMemoryException::InstallNewHandler();
   try {
      return Run(options);
   } catch (const Corvax::Exception& e) {
      std::cerr << "qsh: " << e.what() << '\n';
   } catch (const std::exception& e) {
      std::cerr << "qsh: " << e.what() << '\n';
   }
   return kExitFailure;
}

} // namespace

} // namespace Qsh

int main(int argc, char** argv)
{
   return Qsh::Main(argc, argv);
}
