#pragma once

#include "bench/peers/work.h"

#include <string>
#include <vector>

namespace Peers {

/** Round-robin files for the work: an hour at 20 s, 36 hours of three rollups at 300 s. */
struct RrdFiles {
   std::string directory;
   int seriesPerFile = 1;

   int FileCount() const { return kSeriesCount / seriesPerFile; }
   std::string Name(int file) const { return std::to_string(file) + ".rrd"; }
   std::string Path(int file) const { return directory + "/" + Name(file); }
   /** "time:value:value..." of a file's series; counters as the kernel reports them. */
   std::string UpdateText(int file, int stamp) const;
   /** Throws std::runtime_error if the library refuses. */
   void Create() const;
   /** Fills the first files with 36 hours of rollups up to the beginning of the work. */
   void FillPast(int files) const;
};

/** Throws std::runtime_error with the library's text if `result` is not 0. */
void CheckRrd(int result, const std::string& what);

/**
 * Reads the last `spanSec` up to `endSec` at `stepSec` and returns how many values of the first
 * series are known; throws if the library answers with another step.
 */
int FetchRrd(const std::string& path, int64_t endSec, int64_t spanSec, int stepSec);

/** Checks that the files have what was written: throws if too few of the `due` values are known. */
void CheckKnown(int known, int due);

std::string RrdVersion();

} // namespace Peers
