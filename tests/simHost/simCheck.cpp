#include "corvax/exception.h"
#include "tests/simHost/simOracle.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

/// The runs of a file: a line for each, its time in seconds since the epoch. After a time "first"
/// marks the first run of another process, "cut" one during which its process was killed.
std::vector<SimOracle::Run> ReadRuns(const std::string& path)
{
   std::ifstream file(path);
   std::vector<SimOracle::Run> runs;
   bool isRead = true;
   for (std::string line; isRead && std::getline(file, line);) {
      std::istringstream words(line);
      SimOracle::Run run{0, 0, runs.empty()};
      isRead = static_cast<bool>(words >> run.timeSec);
      run.readSec = run.timeSec;
      for (std::string mark; words >> mark;) {
         run.isFirst |= mark == "first";
         run.isCut |= mark == "cut";
      }
      runs.push_back(run);
   }
   if (runs.empty() || !isRead) {
      throw Corvax::Exception("Cannot read the times of the runs from " + path);
   }
   return runs;
}

} // namespace

/// Compares a depot that an agent has written from its simulated host with that host's model: the
/// runs in the file, and no others, must be there with all their samples. The agent must have
/// ended: a depot has one user.
int main(int argc, char** argv)
{
   const bool onlyEstablished = argc == 6 && std::string(argv[5]) == "--established";
   if (argc != 5 && !onlyEstablished) {
      std::fprintf(stderr,
                   "usage: simCheck DEPOT_DIR/ DEPOT_NAME \"vms=200,pools=20,...\" RUNS_FILE "
                   "[--established]\n");
      return 2;
   }
   try {
      const std::string directory = argv[1];
      const std::string name = argv[2];
      const auto logger = Corvax::NewLogManager()->GetLogger("simCheck");
      Corvax::Ref<Metrix::StatsDepot> depot;
      Metrix::GetStatsDepot(directory, name, logger.Get(), 0, depot);
      depot->LoadReadOnly();
      const SimOracle oracle =
         SimOracle::FromRuns(*depot, SimHost::ParseSimOptions(argv[3]), ReadRuns(argv[4]));
      const SimOracle::Result result =
         oracle.Compare(*depot, directory + name + ".idMap", onlyEstablished);
      for (const std::string& text : result.texts) {
         std::printf("%s\n", text.c_str());
      }
      std::printf("%zu stats, %zu samples compared, %zu differ, %zu of them lost\n", result.stats,
                  result.samples, result.differ, result.lost);
      return result.differ == 0 && result.samples > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
   } catch (const Corvax::Exception& e) {
      std::fprintf(stderr, "simCheck: %s\n", e.what());
      return EXIT_FAILURE;
   }
}
