#include "depotTool/options.h"

#include "console/program.h"

#include <CLI/CLI.hpp>

namespace DepotTool {

namespace {

CLI::App* AddCommand(CLI::App& app, Options& options, Command command, const char* name,
                     const char* summary)
{
   CLI::App* const added = app.add_subcommand(name, summary);
   return added->callback([&options, command] { options.command = command; });
}

/// Last, because positional arguments are taken in this order.
void AddDepot(CLI::App& command, Options& options)
{
   command.add_option("dir", options.dir, "Directory of the depot")->required()->type_name("DIR");
   command.add_option("name", options.name, "Name of the depot")
      ->type_name("NAME")
      ->capture_default_str();
}

void AddRepair(CLI::App& app, Options& options)
{
   CLI::App* const repair =
      AddCommand(app, options, Command::REPAIR, "repair", "Repair what check finds");
   CLI::Option_group* const target =
      repair->add_option_group("target", "Where the repaired depot is to be");
   target->add_option("--to", options.toDir, "In this directory; the depot itself stays as it is")
      ->type_name("DIR");
   target->add_flag("--in-place", options.inPlace,
                    "In its own directory; no process may use the depot meanwhile");
   target->require_option(1);
   repair->add_flag("--recompute-rollups", options.recompute,
                    "Also replace coarse samples that are not the rollups of the fine ones");
   repair->add_flag("--all", options.all, "Show all findings, not the first of each kind");
   AddDepot(*repair, options);
}

void AddCommands(CLI::App& app, Options& options)
{
   CLI::App* const check = AddCommand(app, options, Command::CHECK, "check",
                                      "Look for damage; status 1 if there is any");
   check->add_flag("--json", options.json, "Print JSON");
   check->add_flag("--all", options.all, "Show all findings, not the first of each kind");
   AddDepot(*check, options);
   AddRepair(app, options);
   AddDepot(*AddCommand(app, options, Command::DUMP, "dump", "Print the depot as text"), options);
   CLI::App* const restore =
      AddCommand(app, options, Command::RESTORE, "restore", "Create a depot from a dump");
   restore->add_option("file", options.dumpFile, "Text printed by dump; - for standard input")
      ->required()
      ->type_name("FILE");
   AddDepot(*restore, options);
   CLI::App* const info =
      AddCommand(app, options, Command::INFO, "info", "Show size, history and number of stats");
   info->add_flag("--json", options.json, "Print JSON");
   AddDepot(*info, options);
   CLI::App* const exporting =
      AddCommand(app, options, Command::EXPORT, "export", "Print samples for other programs");
   exporting->add_flag("--openmetrics", options.openMetrics, "As OpenMetrics text")->required();
   exporting
      ->add_option("--interval", options.intervalName,
                   "Samples of this interval (default: the finest)")
      ->type_name("NAME");
   AddDepot(*exporting, options);
}

} // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options)
{
   CLI::App app(
      "Checks, repairs and converts a statistics depot. Only repair --in-place and restore "
      "change a depot's files; the others work on a private copy, also while the agent "
      "runs.",
      kProgramName);
   app.require_subcommand(1);
   AddCommands(app, options);
   return Console::ParseOptions(app, argc, argv);
}

} // namespace DepotTool
