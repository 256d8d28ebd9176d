#include "bench/peers/rrdFiles.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include <rrd.h>

namespace Peers {

namespace {

constexpr int kPastSec = kRollupCount * kRollupSec;

std::string SourceText(int series)
{
   // The heartbeat covers a whole rollup period, the step of FillPast.
   const std::string type = IsCounter(series) ? "COUNTER" : "GAUGE";
   return "DS:s" + std::to_string(series) + ":" + type + ":600:0:U";
}

} // namespace

std::string RrdFiles::UpdateText(int file, int stamp) const
{
   std::string text = std::to_string(StampSec(stamp));
   char value[32];
   for (int ix = 0; ix < seriesPerFile; ++ix) {
      const int series = file * seriesPerFile + ix;
      if (IsCounter(series)) {
         text += ":" + std::to_string(CounterValue(series, stamp));
      } else {
         std::snprintf(value, sizeof(value), ":%.2f", Value(series, stamp));
         text += value;
      }
   }
   return text;
}

void RrdFiles::Create() const
{
   for (int file = 0; file < FileCount(); ++file) {
      std::vector<std::string> texts;
      for (int ix = 0; ix < seriesPerFile; ++ix) {
         texts.push_back(SourceText(file * seriesPerFile + ix));
      }
      texts.push_back("RRA:AVERAGE:0.5:1:" + std::to_string(kStampCount));
      for (const char* kind : {"AVERAGE", "MAX", "MIN"}) {
         texts.push_back("RRA:" + std::string(kind) + ":0.5:" + std::to_string(kStampsPerRollup) +
                         ":" + std::to_string(kRollupCount));
      }
      std::vector<const char*> arguments;
      for (const std::string& text : texts) {
         arguments.push_back(text.c_str());
      }
      const std::string path = Path(file);
      CheckRrd(rrd_create_r(path.c_str(), kStepSec, kEpochSec - kPastSec - kRollupSec,
                            static_cast<int>(arguments.size()), arguments.data()),
               "create " + path);
   }
}

void RrdFiles::FillPast(int files) const
{
   for (int file = 0; file < files; ++file) {
      const std::string path = Path(file);
      const std::string values = UpdateText(file, 0).substr(std::to_string(kEpochSec).size());
      for (int64_t at = kEpochSec - kPastSec; at <= kEpochSec; at += kRollupSec) {
         const std::string text = std::to_string(at) + values;
         const char* argument = text.c_str();
         CheckRrd(rrd_update_r(path.c_str(), nullptr, 1, &argument), "update " + path);
      }
   }
}

void CheckRrd(int result, const std::string& what)
{
   if (result == 0) {
      return;
   }
   const std::string text = rrd_get_error();
   rrd_clear_error();
   throw std::runtime_error(what + ": " + text);
}

int FetchRrd(const std::string& path, int64_t endSec, int64_t spanSec, int stepSec)
{
   time_t start = endSec - spanSec;
   time_t end = endSec - stepSec; // the library adds the row that `end` begins
   unsigned long step = static_cast<unsigned long>(stepSec);
   unsigned long sourceCount = 0;
   char** names = nullptr;
   rrd_value_t* values = nullptr;
   CheckRrd(
      rrd_fetch_r(path.c_str(), "AVERAGE", &start, &end, &step, &sourceCount, &names, &values),
      "fetch " + path);
   int known = 0;
   const unsigned long rows = static_cast<unsigned long>(end - start) / step;
   for (unsigned long row = 0; row < rows; ++row) {
      known += std::isnan(values[row * sourceCount]) ? 0 : 1;
   }
   for (unsigned long ix = 0; ix < sourceCount; ++ix) {
      rrd_freemem(names[ix]);
   }
   rrd_freemem(names);
   rrd_freemem(values);
   if (step != static_cast<unsigned long>(stepSec)) {
      throw std::runtime_error("fetch " + path + " answered with a step of " +
                               std::to_string(step));
   }
   return known;
}

void CheckKnown(int known, int due)
{
   // The first value after a counter's restart and the current rollup are never known.
   if (known < due - 2) {
      throw std::runtime_error(std::to_string(known) + " of " + std::to_string(due) +
                               " values were found");
   }
}

std::string RrdVersion()
{
   return rrd_strversion();
}

} // namespace Peers
