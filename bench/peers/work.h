#pragma once

#include <cstdint>
#include <string>

namespace Peers {

// The work that every store does: one sample per series every 20 s, kept for an hour, and rolled up
// to 300 s as average, maximum and minimum, kept for 36 hours.
constexpr int kSeriesCount = 10'000;
constexpr int kStepSec = 20;
constexpr int kStampCount = 180;
constexpr int kRollupSec = 300;
constexpr int kStampsPerRollup = kRollupSec / kStepSec;
constexpr int kRollupCount = 432;
// The stamps are counted from this time, a multiple of an hour, so that a rollup period begins
// here.
constexpr int64_t kEpochSec = 1'700'002'800;

inline int64_t StampSec(int stamp)
{
   return kEpochSec + int64_t{stamp + 1} * kStepSec;
}

/** Every second series is a counter, as about half of a host's figures are. */
inline bool IsCounter(int series)
{
   return series % 2 == 0;
}

/** The kernel's figure for a counter series; never falls. */
uint64_t CounterValue(int series, int stamp);

/** The value for a store that takes no counters: the rate per second, or the gauge itself. */
double Value(int series, int stamp);

/** The command line of a peer's program: NAME [--quick] --scratch DIR [VARIANT]. */
struct Options {
   std::string scratch; // an empty directory that the caller removes
   std::string variant;
   bool quick = false; // one repetition of 30 stamps: only to see that it works
};

/** Throws std::runtime_error for unknown arguments and for a missing --scratch. */
Options ParseOptions(int argc, char** argv);

/** Calls the body. An exception becomes a line on stderr and exit code 1. */
int RunPeer(int argc, char** argv, void (*body)(const Options&));

/** Throws std::runtime_error: "WHAT: text of errno". */
[[noreturn]] void ThrowErrno(const std::string& what);

/** Prints one JSON line on stdout. */
void Report(const std::string& work, const std::string& who, double value, const std::string& unit,
            const std::string& note);

} // namespace Peers
