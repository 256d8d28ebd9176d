#pragma once

#include "bench/peers/work.h"

#include <string>
#include <vector>

namespace Peers {

/** Round-robin files of the work's shape: an hour at 20 s, 36 hours of three roll-ups at 300 s. */
struct RrdFiles {
   std::string directory;
   int seriesPerFile = 1;

   int FileCount() const { return kSeriesCount / seriesPerFile; }
   std::string Name(int file) const { return std::to_string(file) + ".rrd"; }
   std::string Path(int file) const { return directory + "/" + Name(file); }
   /** "time:value:value..." of a file's series; counters as the kernel shows them. */
   std::string UpdateText(int file, int stamp) const;
   /** Throws std::runtime_error where the library refuses. */
   void Create() const;
   /** Gives the first files 36 hours of roll-ups that end where the work begins. */
   void FillPast(int files) const;
};

/** Throws std::runtime_error with the library's text when `result` is not 0. */
void CheckRrd(int result, const std::string& what);

/**
 * Reads the last `spanSec` up to `endSec` at `stepSec` and returns how many values of the first
 * series are known; throws when the library hands out another step.
 */
int FetchRrd(const std::string& path, int64_t endSec, int64_t spanSec, int stepSec);

/** That the files hold what was written: throws when fewer than `due` values are known. */
void CheckKnown(int known, int due);

std::string RrdVersion();

} // namespace Peers
