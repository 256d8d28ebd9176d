#include "agentctl/options.h"

#include "agentctl/httpClient.h"
#include "agentctl/printable.h"
#include "agentctl/version.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <map>

namespace Agentctl {

namespace {

std::string CheckServer(const std::string& text)
{
   return ParseServerUrl(text) ? std::string()
                               : "'" + text + "' is no URL of the form http://HOST[:PORT]";
}

/// A check for whole numbers from `least` on.
CLI::Validator AtLeast(int64_t least)
{
   return CLI::Validator(
      [least](std::string& text) {
         int64_t number = 0;
         const bool isNumber = CLI::detail::lexical_cast(text, number);
         return isNumber && number >= least
                   ? std::string()
                   : "'" + text + "' is no whole number from " + std::to_string(least) + " on";
      },
      "");
}

void AddQuery(CLI::App& app, Options& options, std::string& format)
{
   CLI::App* const query = app.add_subcommand("query", "Show the samples of an entity");
   query->footer(
      "METRIC is group.name[.rollup][:instance], as `metrics` lists them; the instance * "
      "stands for all.\nA time T is 2026-11-21T09:05:00Z, seconds since 1970, or before "
      "now: -30s, -10m, -2h, -1d.");
   query->add_option("entity", options.entityId, "Entity id")->required()->type_name("ENTITY");
   query->add_option("metric", options.metrics, "What to show; none: everything")
      ->type_name("METRIC");
   query
      ->add_option("--interval", options.intervalSec,
                   "Seconds of the interval, as `intervals` lists them; 0: the latest raw values "
                   "(default: the real-time interval)")
      ->type_name("SEC")
      ->check(AtLeast(0));
   query->add_option("--from", options.from, "Samples after this time")->type_name("T");
   CLI::Option* const to =
      query->add_option("--to", options.to, "Samples up to this time")->type_name("T");
   query->add_option("--max", options.maxSample, "At most so many samples")
      ->type_name("N")
      ->check(AtLeast(1));
   query->add_option("--format", format, "Form of the answer")
      ->type_name("FORMAT")
      ->capture_default_str()
      ->check(CLI::IsMember({"table", "csv", "json"}));
   query->add_flag("--watch", options.watch, "Go on with new samples as they come, as a table")
      ->excludes(to);
   query->add_flag("--utc", options.utc, "Show times in UTC instead of local time");
}

void AddCommands(CLI::App& app, Options& options, std::string& format)
{
   app.add_subcommand("entities", "List what has statistics");
   app.add_subcommand("counters", "List the counters")
      ->add_option("group", options.group, "Only this group: cpu, mem, ...")
      ->type_name("GROUP");
   app.add_subcommand("intervals", "List the intervals in which samples are kept");
   app.add_subcommand("metrics", "List what there is to query of an entity")
      ->add_option("entity", options.entityId, "Entity id")
      ->required()
      ->type_name("ENTITY");
   AddQuery(app, options, format);
   app.add_subcommand("usage", "Show CPU and memory now in use by the host or a virtual machine")
      ->add_option("vm", options.vmId, "Id of a virtual machine; none: the host")
      ->type_name("VM");
   CLI::App* const top = app.add_subcommand("top", "Watch host, virtual machines and pools");
   top->footer("Keys: c m d n r sort by CPU, memory, disk, network or ready time; q quits.\nWhere "
               "standard output is no terminal the table is printed once.");
   top->add_option("--count", options.count, "Print so many tables plainly, one an interval")
      ->type_name("N")
      ->check(AtLeast(1));
}

Command GetCommand(const CLI::App& app)
{
   static const std::map<std::string, Command> commands = {{"entities", Command::ENTITIES},
                                                           {"counters", Command::COUNTERS},
                                                           {"intervals", Command::INTERVALS},
                                                           {"metrics", Command::METRICS},
                                                           {"query", Command::QUERY},
                                                           {"usage", Command::USAGE},
                                                           {"top", Command::TOP}};
   return commands.at(app.get_subcommands().front()->get_name());
}

QueryFormat GetFormat(const std::string& text)
{
   if (text == "csv") {
      return QueryFormat::CSV;
   }
   return text == "json" ? QueryFormat::JSON : QueryFormat::TABLE;
}

} // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options)
{
   CLI::App app("The command line of the host agent's statistics.", "agentctl");
   app.set_version_flag("--version", std::string("agentctl ") + kVersion);
   app.add_option("--server", options.server, "Where the agent listens")
      ->type_name("URL")
      ->envname("METRIX_SERVER")
      ->capture_default_str()
      ->check(CheckServer);
   app.require_subcommand(1);
   app.fallthrough(); // --server is taken behind the command, too
   std::string format = "table";
   AddCommands(app, options, format);
   try {
      app.parse(argc, argv);
      options.format = GetFormat(format);
      if (options.watch && options.format != QueryFormat::TABLE) {
         throw CLI::ValidationError("--watch", "goes with the table only");
      }
   } catch (const CLI::Success& e) {
      return app.exit(e);
   } catch (const CLI::ParseError& e) {
      std::cerr << "agentctl: " << Printable(e.what()) << " (agentctl --help tells more)\n";
      return kExitUsage;
   }
   options.command = GetCommand(app);
   return std::nullopt;
}

} // namespace Agentctl
