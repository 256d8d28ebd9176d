#include "console/program.h"
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

/// Owns the application object while the shell runs. Its loggers print errors only.
class ApplicationScope {
public:
   ApplicationScope()
   {
      const Ref<Corvax::LogManager> logManager = Corvax::NewLogManager();
      logManager->SetDefaultLevel("error");
      Ref<Corvax::XmlConfig> emptyConfig;
      Corvax::GetXmlConfig("", emptyConfig);
      Corvax::Service::SetApp(
         Corvax::NewApplication(logManager, Corvax::NewConfigStore(emptyConfig)));
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

/// Empty if the user has no writable home directory.
std::string GetHistoryFile()
{
   const char* const home = std::getenv("HOME");
   const bool isUsable = home != nullptr && *home != '\0' && ::access(home, W_OK) == 0;
   return isUsable ? std::string(home) + "/.qsh_history" : std::string();
}

void RunInteractive(TessQshInternalState& shell)
{
   LineEditor editor("qsh> ", GetHistoryFile(), [&shell](const std::string& wordsBefore) {
      return shell.GetCompletions(wordsBefore);
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

/// Returns the exit status: a failed command makes a script fail, but not an interactive session,
/// whose user has seen the error.
int RunShell(const Options& options)
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
   return shell.HasFailed() && !isInteractive ? Console::kExitFailure : EXIT_SUCCESS;
}

int Main(int argc, char** argv)
{
   Options options;
   if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
      return *status;
   }
   return Console::Run(kProgramName, [&options] { return RunShell(options); });
}

} // namespace

} // namespace Qsh

int main(int argc, char** argv)
{
   return Qsh::Main(argc, argv);
}
