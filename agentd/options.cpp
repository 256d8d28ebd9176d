#include "agentd/options.h"

#include "agentd/version.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace Agentd {

namespace {

std::string CheckInterval(const std::string& text)
{
   int seconds = 0;
   const bool isNumber = CLI::detail::lexical_cast(text, seconds);
   return isNumber && seconds > 0 && 300 % seconds == 0
             ? std::string()
             : "'" + text + "' is no divisor of 300 seconds (1, 2, 5, 10, 20, 30, 60, ...)";
}

} // namespace

std::optional<int> ParseOptions(int argc, char** argv, Options& options)
{
   CLI::App app("The host agent: samples this machine and keeps its statistics.", "agentd");
   app.set_version_flag("--version", std::string("agentd ") + kVersion);
   app.add_option("--config", options.configFile, "Configuration file (XML)")->type_name("FILE");
   app.add_flag("--check-config", options.checkConfig,
                "Check the configuration, say what is wrong with it and exit");
   app.add_option(
         "--state-dir", options.stateDir,
         "Directory for what lasts (default /var/lib/quorra/agentd); the statistics lie in "
         "its folder stats")
      ->type_name("DIR");
   app.add_option("--interval", options.intervalSec,
                  "Seconds between collections, a divisor of 300")
      ->type_name("SEC")
      ->check(CheckInterval);
   app.add_flag("--mockup", options.mockup,
                "Collect a fixed set of zeroes instead of real figures");
   app.add_option("--runs", options.runs, "Stop after so many collections")
      ->type_name("N")
      ->check(CLI::Range(int64_t{1}, INT64_MAX));
   app.add_flag("--report", options.report,
                "After each collection, print a line of the host's newest figures");
   app.add_option("--plugin", options.pluginFile, "Plug-in to load instead of the installed one")
      ->type_name("FILE");
   app.add_option("--backend", options.backend,
                  "Where the figures come from: auto (default; this machine, with its virtual "
                  "machines where libvirt answers), linux (this machine alone), simulated")
      ->type_name("NAME")
      ->check(CLI::IsMember({"auto", "linux", "simulated"}));
   app.add_option("--sim", options.simulation,
                  "The simulated host, such as vms=200,pools=20,disks=8,nics=4,seed=1")
      ->type_name("KEY=N,...");
   app.add_option("--listen", options.listen,
                  "Where the management API is served (default 127.0.0.1:8697); none for nowhere")
      ->type_name("ADDRESS:PORT");
   try {
      app.parse(argc, argv);
   } catch (const CLI::Success& e) {
      return app.exit(e);
   } catch (const CLI::ParseError& e) {
      std::cerr << "agentd: " << e.what() << " (agentd --help lists the options)\n";
      return kExitUsage;
   }
   return std::nullopt;
}

} // namespace Agentd
