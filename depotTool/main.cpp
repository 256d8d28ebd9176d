#include "console/program.h"
#include "depotTool/commands.h"
#include "depotTool/interruption.h"
#include "depotTool/options.h"
#include "depotTool/textOutput.h"

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv)
{
   using namespace DepotTool;
   Options options;
   if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
      return *status;
   }
   CatchSignals();
   return Console::Run(kProgramName, [&options] {
      try {
         return RunCommand(options, std::cout, std::cerr);
      } catch (const OutputClosed&) {
         return EXIT_SUCCESS; // as in `metrix-depot dump DIR | head`
      } catch (const Interrupted&) {
         Console::PrintError(kProgramName, "interrupted");
         return Console::kExitFailure;
      }
   });
}
