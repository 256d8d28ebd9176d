#include "agentctl/options.h"

#include "agentctl/httpClient.h"
#include "console/program.h"
#include "corvax/exception.h"

#include <CLI/CLI.hpp>

namespace Agentctl {

namespace {

using Console::AtLeast;

std::string CheckServer(const std::string& url)
{
   try {
      ParseServerUrl(url);
      return {};
   } catch (const Corvax::InvalidArgumentException& e) {
      return e.GetMessage();
   }
}

CLI::App* AddCommand(CLI::App& app, Options& options, Command command, const char* name,
                     const char* summary)
{
   CLI::App* const added = app.add_subcommand(name, summary);
   return added->callback([&options, command] { options.command = command; });
}

void AddQuery(CLI::App& app, Options& options, std::string& format)
{
   CLI::App* const query =
      AddCommand(app, options, Command::QUERY, "query", "Show the samples of an entity");
   query->footer("METRIC is group.name[.rollup][:instance], as listed by `metrics`; the instance * "
                 "means all.\nA time T is 2026-11-21T09:05:00Z, seconds since 1970, or relative to "
                 "now: -30s, -10m, -2h, -1d.");
   query->add_option("entity", options.entityId, "Entity id")->required()->type_name("ENTITY");
   query->add_option("metric", options.metrics, "Metrics to show (default: all)")
      ->type_name("METRIC");
   query
      ->add_option("--interval", options.intervalSec,
                   "Sampling period of the interval in seconds, as listed by `intervals`; 0: the "
                   "latest raw values (default: the real-time interval)")
      ->type_name("SEC")
      ->check(AtLeast(0));
   query->add_option("--from", options.from, "Samples after this time")->type_name("T");
   CLI::Option* const to =
      query->add_option("--to", options.to, "Samples up to this time")->type_name("T");
   query
      ->add_option("--max", options.maxSample,
                   "Only the newest N sampling periods of the real-time interval")
      ->type_name("N")
      ->check(AtLeast(1));
   query->add_option("--format", format, "Output format")
      ->type_name("FORMAT")
      ->capture_default_str()
      ->check(CLI::IsMember({"table", "csv", "json"}));
   query->add_flag("--watch", options.watch, "Keep printing new samples as they arrive")
      ->excludes(to);
   query->add_flag("--utc", options.utc, "Show times in UTC instead of local time");
}

void AddTop(CLI::App& app, Options& options)
{
   CLI::App* const top =
      AddCommand(app, options, Command::TOP, "top",
                 "Watch the current figures of host, virtual machines and pools");
   top->footer("Keys: c m d n r sort by CPU, memory, disk, network or ready time; q quits.\nIf "
               "standard output is not a terminal, the table is printed once.");
   top->add_option("--count", options.count, "Print N tables as plain text, one per interval")
      ->type_name("N")
      ->check(AtLeast(1));
}

void AddCommands(CLI::App& app, Options& options, std::string& format)
{
   AddCommand(app, options, Command::ENTITIES, "entities", "List the entities");
   AddCommand(app, options, Command::COUNTERS, "counters", "List the counters")
      ->add_option("group", options.group, "Only this group: cpu, mem, ...")
      ->type_name("GROUP");
   AddCommand(app, options, Command::INTERVALS, "intervals",
              "List the intervals at which samples are kept");
   AddCommand(app, options, Command::METRICS, "metrics", "List the metrics of an entity")
      ->add_option("entity", options.entityId, "Entity id")
      ->required()
      ->type_name("ENTITY");
   AddQuery(app, options, format);
   AddCommand(app, options, Command::USAGE, "usage",
              "Show the current CPU and memory use of the host or a virtual machine")
      ->add_option("vm", options.vmId, "Id of a virtual machine (default: the host)")
      ->type_name("VM");
   AddTop(app, options);
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
   CLI::App app("Shows the statistics of a host's agent.", kProgramName);
   app.add_option("--server", options.server, "URL of the agent")
      ->type_name("URL")
      ->envname("METRIX_SERVER")
      ->capture_default_str()
      ->check(CheckServer);
   app.require_subcommand(1);
   app.fallthrough(); // --server may also follow the command
   std::string format = "table";
   AddCommands(app, options, format);
   app.callback([&options, &format] {
      options.format = GetFormat(format);
      if (options.watch && options.format != QueryFormat::TABLE) {
         throw CLI::ValidationError("--watch", "requires --format table");
      }
   });
   return Console::ParseOptions(app, argc, argv);
}

} // namespace Agentctl
