#include "agentctl/commands.h"
#include "agentctl/options.h"
#include "agentctl/query.h"
#include "agentctl/screen.h"
#include "agentctl/topCommand.h"
#include "console/program.h"

#include <chrono>
#include <cstdlib>
#include <thread>

namespace Agentctl {

namespace {

bool Sleep(int64_t seconds)
{
   std::this_thread::sleep_for(std::chrono::seconds(seconds));
   return true;
}

void RunCommand(const Options& options, Output& output)
{
   const std::unique_ptr<HttpClient> client = NewHttpClient(options.server);
   Api api(*client);
   switch (options.command) {
   case Command::ENTITIES:
      return ListEntities(api, output);
   case Command::COUNTERS:
      return ListCounters(api, options.group, output);
   case Command::INTERVALS:
      return ListIntervals(api, output);
   case Command::METRICS:
      return ListMetrics(api, options.entityId, output);
   case Command::QUERY:
      if (options.watch) {
         EndOnSignals();
      }
      return RunQuery(api, options, output, Sleep);
   case Command::USAGE:
      return ShowUsage(api, options.vmId, output);
   case Command::TOP:
      if (options.count || !output.IsTerminal()) {
         return PrintTop(api, options.count.value_or(1), output, Sleep);
      }
      return ShowTop(api, options.server, output);
   }
}

int Main(int argc, char** argv)
{
   Options options;
   if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
      return *status;
   }
   return Console::Run(kProgramName, [&options] {
      try {
         RunCommand(options, *NewStandardOutput());
         return EXIT_SUCCESS;
      } catch (const OutputClosed&) {
         return EXIT_SUCCESS; // as in `agentctl counters | head`
      }
   });
}

} // namespace

} // namespace Agentctl

int main(int argc, char** argv)
{
   return Agentctl::Main(argc, argv);
}
