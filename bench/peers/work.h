#pragma once

#include <cstdint>
#include <string>

namespace Peers {

// The work that every store does: one sample a series every 20 s, an hour of them kept, and rolled
// up to 300 s as average, maximum and minimum, 36 hours of those kept.
constexpr int kSeriesCount = 10'000;
constexpr int kStepSec = 20;
constexpr int kStampCount = 180;
constexpr int kRollupSec = 300;
constexpr int kStampsPerRollup = kRollupSec / kStepSec;
constexpr int kRollupCount = 432;
// Stamps count from here; a multiple of an hour, so that spans of roll-ups begin with it.
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

/** What the kernel would show for a counter series: never falls, of a few thousand to millions. */
uint64_t CounterValue(int series, int stamp);

/** What a store keeps that takes no counters: the rate a second, or the gauge itself. */
double Value(int series, int stamp);

/** How a program of a peer was called: NAME [--quick] --scratch DIR [VARIANT]. */
struct Options {
   std::string scratch; // an empty directory that the caller removes
   std::string variant;
   bool quick = false; // one pass of 30 stamps: does it run at all
};

/** Throws std::runtime_error for arguments it does not know. */
Options ParseOptions(int argc, char** argv);

/** Calls the body and turns its exceptions into a line on stderr and exit code 1. */
int RunPeer(int argc, char** argv, void (*body)(const Options&));

/** Throws std::runtime_error: "WHAT: text of errno". */
[[noreturn]] void ThrowErrno(const std::string& what);

/** One JSON line on stdout. */
void Report(const std::string& work, const std::string& who, double value, const std::string& unit,
            const std::string& note);

} // namespace Peers
