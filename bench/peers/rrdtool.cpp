#include "bench/peers/measure.h"
#include "bench/peers/rrdFiles.h"

#include <algorithm>
#include <stdexcept>

#include <rrd.h>

namespace {

using namespace Peers;

constexpr int kFilesWithPast = 100;

class RrdLibrary : public Store {
public:
   explicit RrdLibrary(RrdFiles files) : _files(std::move(files)) {}

   void Prepare(int stamp) override
   {
      _texts.resize(static_cast<size_t>(_files.FileCount()));
      _paths.resize(_texts.size());
      for (int file = 0; file < _files.FileCount(); ++file) {
         _texts[static_cast<size_t>(file)] = _files.UpdateText(file, stamp);
         _paths[static_cast<size_t>(file)] = _files.Path(file);
      }
   }

   void Write(int) override
   {
      for (size_t file = 0; file < _texts.size(); ++file) {
         const char* text = _texts[file].c_str();
         CheckRrd(rrd_update_r(_paths[file].c_str(), nullptr, 1, &text), "update " + _paths[file]);
      }
   }

private:
   RrdFiles _files;
   std::vector<std::string> _texts;
   std::vector<std::string> _paths;
};

Plan MakePlan(const Options& options, bool fileASeries)
{
   if (options.quick) {
      return QuickPlan();
   }
   // 10,000 files take half a minute of CPU and more for the hour, so their passes are two spans
   // of roll-ups.
   return {.passes = 3,
           .stampsPerPass = fileASeries ? 2 * kStampsPerRollup : kStampCount,
           .coldWarmUp = 0,
           .coldStamps = fileASeries ? kStampsPerRollup : 2 * kStampsPerRollup};
}

void ReportQueries(const RrdFiles& files, const std::string& who, int nextStamp)
{
   const int64_t endSec = StampSec(nextStamp - 1);
   CheckKnown(FetchRrd(files.Path(0), endSec, 3600, kStepSec), std::min(nextStamp, kStampCount));
   // The passes end with a span of roll-ups, and those took the places of the oldest.
   constexpr int kPastSec = kRollupCount * kRollupSec;
   CheckKnown(FetchRrd(files.Path(0), endSec, kPastSec, kRollupSec), kRollupCount);
   const std::string note = "rrd_fetch_r, in process, warm";
   Report("query-1h", who,
          LatencyP50Us(2000,
                       [&](int series) {
                          FetchRrd(files.Path(series / files.seriesPerFile), endSec, 3600,
                                   kStepSec);
                       }),
          "us", note);
   Report("query-36h", who,
          LatencyP50Us(2000,
                       [&](int series) {
                          FetchRrd(files.Path(series % kFilesWithPast), endSec, kPastSec,
                                   kRollupSec);
                       }),
          "us", note + ", 100 files that have the past");
}

void Measure(const Options& options)
{
   if (options.variant != "1" && options.variant != "50") {
      throw std::runtime_error("takes 1 or 50 series a file");
   }
   const RrdFiles files{options.scratch, std::stoi(options.variant)};
   const bool fileASeries = files.seriesPerFile == 1;
   const std::string who =
      "RRDtool " + RrdVersion() + (fileASeries ? ", one file a series" : ", 50 series a file");
   const std::string note = "rrd_update_r of librrd in process, half COUNTER, half GAUGE; making "
                            "the update texts not counted";
   files.Create();
   files.FillPast(kFilesWithPast);

   int stamp = 0;
   const Plan plan = MakePlan(options, fileASeries);
   RrdLibrary library(files);
   Report("ingest-hot", who, HotCostUs(library, plan, stamp), "us",
          note + "; passes of " + std::to_string(plan.stampsPerPass) + " stamps");
   ReportQueries(files, who, stamp);
   Report("resident-mib", who, ResidentMib(), "MiB", "the program with the library");
   Chiller chiller(options.scratch);
   Report("ingest-cold", who, ColdCostUs(library, plan, chiller, stamp), "us",
          note + "; syncfs and CPU caches emptied before each stamp");
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, Measure);
}
