#include "qsh/options.h"

#include "console/program.h"

#include <CLI/CLI.hpp>

namespace Qsh {

std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options)
{
   CLI::App app("The diagnostic shell: runs commands of plug-ins, from -c, standard input or a "
                "terminal. Its command \"help\" lists them.",
                kProgramName);
   app.add_option("-c", options.commands, "Run these commands, separated by semicolons, and exit")
      ->type_name("COMMANDS");
   app.add_option("--plugin", options.pluginFiles,
                  "Plug-in to load instead of the installed one; can be given several times")
      ->type_name("FILE")
      ->expected(1)
      ->take_all();
   return Console::ParseOptions(app, argc, argv);
}

} // namespace Qsh
