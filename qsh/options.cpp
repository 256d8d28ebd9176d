#include "qsh/options.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace Qsh {

std::optional<int> ParseOptions(int argc, char** argv, Options& options)
{
   CLI::App app("The diagnostic shell: runs commands of plug-ins, from -c, from standard input or "
                "typed in. Its command \"help\" lists them.",
                "qsh");
   app.set_version_flag("--version", "qsh " QSH_VERSION);
   app.add_option("-c", options.commands, "Run these commands, separated by semicolons, and end")
      ->type_name("COMMANDS");
   app.add_option("--plugin", options.pluginFiles,
                  "Plug-in to load instead of the installed one; may be given several times")
      ->type_name("FILE")
      ->expected(1)
      ->take_all();
   try {
      app.parse(argc, argv);
   } catch (const CLI::Success& e) {
      return app.exit(e);
   } catch (const CLI::ParseError& e) {
      std::cerr << "qsh: " << e.what() << " (qsh --help lists the options)\n";
      return kExitUsage;
   }
   return std::nullopt;
}

} // namespace Qsh
