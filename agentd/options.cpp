#include "agentd/options.h"

#include "console/program.h"
#include "corvax/format.h"

#include <CLI/CLI.hpp>

namespace Agentd {

namespace {

std::string CheckInterval(const std::string& text)
{
   int seconds = 0;
   const bool isNumber = CLI::detail::lexical_cast(text, seconds);
   return isNumber && IsCollectionInterval(seconds)
             ? std::string()
             : Corvax::Format("'%1' does not divide 300 seconds (1, 2, 5, 10, 20, 30, 60, ...)",
                              text);
}

} // namespace

std::optional<int> ParseOptions(int argc, char** argv, Options& options)
{
   CLI::App app("The host agent: samples this machine and keeps its statistics.", kProgramName);
   app.add_option("--config", options.configFile, "Configuration file (XML)")->type_name("FILE");
   app.add_flag("--check-config", options.checkConfig,
                "Check the configuration, print the first error and exit");
   app.add_option("--state-dir", options.stateDir,
                  "State directory (default /var/lib/quorra/agentd); the statistics are in its "
                  "directory stats")
      ->type_name("DIR");
   app.add_option("--interval", options.intervalSec, "Seconds between collections; must divide 300")
      ->type_name("SEC")
      ->check(CheckInterval);
   app.add_flag("--mockup", options.mockup,
                "Collect a fixed set of zeroes instead of real figures");
   app.add_option("--runs", options.runs, "Stop after N collections")
      ->type_name("N")
      ->check(Console::AtLeast(1));
   app.add_flag("--report", options.report,
                "Print a line with the host's newest figures after each collection");
   app.add_option("--plugin", options.pluginFile, "Plug-in to load instead of the installed one")
      ->type_name("FILE");
   app.add_option("--backend", options.backend,
                  "The host to sample: auto (default; this machine, with its virtual machines if "
                  "libvirt is installed), linux (this machine without them), simulated")
      ->type_name("NAME")
      ->check(CLI::IsMember({"auto", "linux", "simulated"}));
   app.add_option("--sim", options.simulation,
                  "Settings of the simulated host, such as "
                  "vms=200,pools=20,disks=8,nics=4,seed=1")
      ->type_name("KEY=N,...");
   app.add_option("--listen", options.listen,
                  "Address of the management API (default 127.0.0.1:8697); none: do not serve it")
      ->type_name("ADDRESS:PORT");
   return Console::ParseOptions(app, argc, argv);
}

} // namespace Agentd
