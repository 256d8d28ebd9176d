#include "corvax/exception.h"
#include "tests/simHost/simOracle.h"

#include <cstdio>
#include <cstdlib>

/// Holds every sample of a depot that an agent has written from its simulated host against the
/// figures of that host. The agent must have ended: a depot has one user.
int main(int argc, char** argv)
{
   if (argc != 4) {
      std::fprintf(stderr, "usage: simCheck DEPOT_DIR/ DEPOT_NAME \"vms=200,pools=20,...\"\n");
      return 2;
   }
   try {
      const std::string directory = argv[1];
      const std::string name = argv[2];
      const auto logger = Corvax::NewLogManager()->GetLogger("simCheck");
      Corvax::Ref<Metrix::StatsDepot> depot;
      Metrix::GetStatsDepot(directory, name, logger.Get(), 0, depot);
      depot->Load();
      const SimOracle oracle = SimOracle::FromDepot(*depot, SimHost::ParseSimOptions(argv[3]));
      const SimOracle::Result result = oracle.Compare(*depot, directory + name + ".idMap");
      for (const std::string& text : result.texts) {
         std::printf("%s\n", text.c_str());
      }
      std::printf("%zu stats, %zu samples compared, %zu differ\n", result.stats, result.samples,
                  result.differ);
      return result.differ == 0 && result.samples > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
   } catch (const Corvax::Exception& e) {
      std::fprintf(stderr, "simCheck: %s\n", e.what());
      return EXIT_FAILURE;
   }
}
