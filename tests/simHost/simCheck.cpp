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

/// The changes that the simulated host has logged: a line for each, with the time of the run that
/// sees it, its own, action, id and number.
std::vector<SimOracle::Change> ReadChanges(const std::string& path)
{
   std::ifstream file(path);
   std::vector<SimOracle::Change> changes;
   for (std::string line; std::getline(file, line);) {
      std::istringstream words(line);
      SimOracle::Change change{};
      std::string action;
      words >> change.runSec >> change.timeSec >> action >> change.id >> change.count;
      const auto known = SimHost::FindAction(action);
      if (!words || !known) {
         throw Corvax::Exception("Cannot read a change of the simulated host: " + line);
      }
      change.action = *known;
      changes.push_back(change);
   }
   return changes;
}

} // namespace

/// Compares a depot that an agent has written from its simulated host with that host's model: the
/// runs in the file, and no others, must be there with all their samples. The agent must have
/// ended: a depot has one user. The agent has wide figures.
int main(int argc, char** argv)
{
   const bool onlyEstablished = argc == 6 && std::string(argv[5]) == "--established";
   if (argc != 5 && argc != 6) {
      std::fprintf(stderr,
                   "usage: simCheck DEPOT_DIR/ DEPOT_NAME \"vms=200,pools=20,...\" RUNS_FILE "
                   "[--established | CHANGES_FILE]\n");
      return 2;
   }
   try {
      const std::string directory = argv[1];
      const std::string name = argv[2];
      const auto logger = Corvax::NewLogManager()->GetLogger("simCheck");
      Corvax::Ref<Metrix::StatsDepot> depot;
      Metrix::GetStatsDepot(directory, name, logger.Get(), 0, depot);
      depot->LoadReadOnly();
      const auto changes =
         argc == 6 && !onlyEstablished ? ReadChanges(argv[5]) : std::vector<SimOracle::Change>();
      const SimOracle oracle = SimOracle::FromRuns(*depot, SimHost::ParseSimOptions(argv[3]),
                                                   ReadRuns(argv[4]), changes, true);
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
