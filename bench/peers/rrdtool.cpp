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

   void Write(int /*stamp*/) override
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

Plan MakePlan(const Options& options, bool isFilePerSeries)
{
   if (options.quick) {
      return QuickPlan();
   }
   // An hour of 10,000 files takes more than half a minute of CPU, so their repetitions are two
   // rollup periods.
   return {.repetitions = 3,
           .stampsPerRepetition = isFilePerSeries ? 2 * kStampsPerRollup : kStampCount,
           .coldWarmUp = 0,
           .coldStamps = isFilePerSeries ? kStampsPerRollup : 2 * kStampsPerRollup};
}

void ReportQueries(const RrdFiles& files, const std::string& who, int nextStamp)
{
   const int64_t endSec = StampSec(nextStamp - 1);
   CheckKnown(FetchRrd(files.Path(0), endSec, 3600, kStepSec), std::min(nextStamp, kStampCount));
   // The repetitions end with a rollup period, and its rollups have replaced the oldest ones.
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
          "us", note + ", 100 files with 36 hours of rollups");
}

void Measure(const Options& options)
{
   if (options.variant != "1" && options.variant != "50") {
      throw std::runtime_error("the variant is 1 or 50, the series per file");
   }
   const RrdFiles files{options.scratch, std::stoi(options.variant)};
   const bool isFilePerSeries = files.seriesPerFile == 1;
   const std::string who =
      "RRDtool " + RrdVersion() + (isFilePerSeries ? ", one file a series" : ", 50 series a file");
   const std::string note = "rrd_update_r of librrd in process, half COUNTER, half GAUGE; "
                            "formatting the updates not counted";
   files.Create();
   files.FillPast(kFilesWithPast);

   int stamp = 0;
   const Plan plan = MakePlan(options, isFilePerSeries);
   RrdLibrary library(files);
   Report("ingest-hot", who, HotCostUs(library, plan, stamp), "us",
          note + "; repetitions of " + std::to_string(plan.stampsPerRepetition) + " stamps");
   ReportQueries(files, who, stamp);
   Report("resident-mib", who, ResidentMib(), "MiB", "the program with the library");
   const CacheFlusher flusher(options.scratch);
   Report("ingest-cold", who, ColdCostUs(library, plan, flusher, stamp), "us",
          note + "; syncfs and CPU caches emptied before each stamp");
}

} // namespace

int main(int argc, char** argv)
{
   return Peers::RunPeer(argc, argv, Measure);
}
