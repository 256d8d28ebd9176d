#pragma once

#include "corvax/descriptor.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Peers {

/** CPU time (user + system, all threads) of a process in nanoseconds; 0: the caller. */
int64_t CpuNs(pid_t pid = 0);

/** Resident memory of a process in MiB, with mapped files; 0: the caller. */
double ResidentMib(pid_t pid = 0);

/**
 * Puts the machine into the state of 20 s later: everything written is on the disk, so that its
 * pages are clean, and the CPU caches hold other data.
 */
class CacheFlusher {
public:
   /** `place` is any path on the file system of the store. */
   explicit CacheFlusher(const std::string& place);
   ~CacheFlusher();
   CacheFlusher(const CacheFlusher&) = delete;
   CacheFlusher& operator=(const CacheFlusher&) = delete;

   void Flush() const;

private:
   void WalkOnEveryCpu() const;

   Corvax::Descriptor _place;
   size_t _sizeBytes; // twice the last-level cache
   unsigned char* _buffer;
};

/** A store that does the work. Only Write is timed. */
class Store {
public:
   virtual ~Store() = default;

   /** Called before each repetition: a store that only grows is recreated here. */
   virtual void BeginRepetition() {}
   /** The client's work on a stamp before it calls the store, mostly formatting. */
   virtual void Prepare(int stamp) = 0;
   /** Stores the stamp's samples and, when they are due, the rollups. */
   virtual void Write(int stamp) = 0;
   /** CPU time of the store: of this process, or of the server if the store is one. */
   virtual int64_t StoreCpuNs() const { return CpuNs(); }
};

/**
 * The extent of a measurement. Its parts are whole rollup periods, so that each has its share of
 * the rollups.
 */
struct Plan {
   int repetitions = 3;
   int stampsPerRepetition = 180;
   int coldWarmUp = 0; // stamps before the cold ones, not counted
   int coldStamps = 30;
};

Plan QuickPlan();

/** Microseconds of StoreCpuNs per sample: the median of the plan's repetitions. */
double HotCostUs(Store& store, const Plan& plan, int& nextStamp);

/** The same for the plan's cold stamps, each after a Flush that is not counted. */
double ColdCostUs(Store& store, const Plan& plan, const CacheFlusher& flusher, int& nextStamp);

/** The median wall time of `count` calls in microseconds, after a tenth as many that do not count.
 */
double LatencyP50Us(int count, const std::function<void(int)>& query);

double Median(std::vector<double> values);

} // namespace Peers
