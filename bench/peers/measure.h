#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Peers {

/** CPU time (user + system, all threads) of a process in nanoseconds; 0 stands for the caller. */
int64_t CpuNs(pid_t pid = 0);

/** Resident memory of a process in MiB, mapped files included; 0 stands for the caller. */
double ResidentMib(pid_t pid = 0);

/**
 * Makes the machine as a pass finds it 20 s later: what was written is on the disk, so that pages
 * are clean again, and the CPU caches hold other things.
 */
class Chiller {
public:
   /** `place` is any path on the file system of the store. */
   explicit Chiller(const std::string& place);
   ~Chiller();
   Chiller(const Chiller&) = delete;
   Chiller& operator=(const Chiller&) = delete;

   void Chill();

private:
   void WalkOnEveryCpu();

   int _placeFd;
   size_t _sizeBytes; // twice the last-level cache
   unsigned char* _buffer;
};

/** A store under the work. Only Write is on the clock. */
class Store {
public:
   virtual ~Store() = default;

   /** Called before each pass: a store that only grows begins anew here. */
   virtual void BeginPass() {}
   /** What the client does for a stamp before it calls the store: formatting, mostly. */
   virtual void Prepare(int stamp) = 0;
   /** Hands the stamp's samples over and, where they are due, makes the roll-ups. */
   virtual void Write(int stamp) = 0;
   /** CPU time of the store's side; a server's own where the store is one. */
   virtual int64_t StoreCpuNs() const { return CpuNs(); }
};

/** How often what is measured; in stamps, and whole roll-up spans so that each has its share. */
struct Plan {
   int passes = 3;
   int stampsPerPass = 180;
   int coldWarmUp = 0; // stamps of the cold pass that nobody counts
   int coldStamps = 30;
};

Plan QuickPlan();

/** Microseconds of StoreCpuNs a sample: the median over the plan's passes. */
double HotCostUs(Store& store, const Plan& plan, int& nextStamp);

/** The same over one pass, each stamp after a Chill that nobody counts. */
double ColdCostUs(Store& store, const Plan& plan, Chiller& chiller, int& nextStamp);

/** The 50th percentile of the wall time of `count` calls in microseconds, after a tenth unseen. */
double LatencyP50Us(int count, const std::function<void(int)>& query);

double Median(std::vector<double> values);

} // namespace Peers
