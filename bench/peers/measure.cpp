#include "bench/peers/measure.h"

#include "bench/peers/work.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Peers {

namespace {

constexpr size_t kMinWalkBytes = size_t{64} << 20;
constexpr size_t kCacheLineBytes = 64;

size_t WalkBytes()
{
   const long lastLevel = sysconf(_SC_LEVEL3_CACHE_SIZE);
   return std::max(kMinWalkBytes, lastLevel > 0 ? 2 * static_cast<size_t>(lastLevel) : 0);
}

std::vector<int> AllowedCpus()
{
   cpu_set_t allowed;
   CPU_ZERO(&allowed);
   if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) {
      ThrowErrno("sched_getaffinity");
   }
   std::vector<int> cpus;
   for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &allowed)) {
         cpus.push_back(cpu);
      }
   }
   return cpus;
}

/** Reads each line of the buffer on one CPU. The sum keeps the compiler from removing the loop. */
void WalkOn(int cpu, const unsigned char* buffer, size_t sizeBytes)
{
   cpu_set_t only;
   CPU_ZERO(&only);
   CPU_SET(cpu, &only);
   pthread_setaffinity_np(pthread_self(), sizeof(only), &only);
   unsigned sum = 0;
   for (size_t at = 0; at < sizeBytes; at += kCacheLineBytes) {
      sum += buffer[at];
   }
   volatile unsigned sink = sum;
   static_cast<void>(sink);
}

double UsPerSample(int64_t cpuNs, int stamps)
{
   return static_cast<double>(cpuNs) / 1e3 / (static_cast<double>(stamps) * kSeriesCount);
}

int64_t TimedWriteNs(Store& store, int stamp)
{
   store.Prepare(stamp);
   const int64_t before = store.StoreCpuNs();
   store.Write(stamp);
   return store.StoreCpuNs() - before;
}

} // namespace

int64_t CpuNs(pid_t pid)
{
   clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
   if (pid != 0 && clock_getcpuclockid(pid, &clock) != 0) {
      throw std::runtime_error("process " + std::to_string(pid) +
                               " has no CPU clock: it has ended");
   }
   timespec now{};
   if (clock_gettime(clock, &now) != 0) {
      ThrowErrno("clock_gettime of process " + std::to_string(pid));
   }
   return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

double ResidentMib(pid_t pid)
{
   const std::string process = pid == 0 ? "self" : std::to_string(pid);
   std::ifstream statm("/proc/" + process + "/statm");
   int64_t sizePages = 0;
   int64_t residentPages = 0;
   if (!(statm >> sizePages >> residentPages)) {
      throw std::runtime_error("cannot read the memory of process " + process);
   }
   return static_cast<double>(residentPages * sysconf(_SC_PAGESIZE)) / (1 << 20);
}

CacheFlusher::CacheFlusher(const std::string& place)
   : _place(open(place.c_str(), O_RDONLY | O_CLOEXEC)), _sizeBytes(WalkBytes())
{
   if (!_place) {
      ThrowErrno("open " + place);
   }
   // Populated: pages never written would all be the one zero page, which displaces nothing.
   void* mapped = mmap(nullptr, _sizeBytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
   if (mapped == MAP_FAILED) {
      ThrowErrno("mmap of the buffer that empties the caches");
   }
   _buffer = static_cast<unsigned char*>(mapped);
   std::fill(_buffer, _buffer + _sizeBytes, static_cast<unsigned char>(1));
}

CacheFlusher::~CacheFlusher()
{
   munmap(_buffer, _sizeBytes);
}

void CacheFlusher::Flush() const
{
   if (syncfs(_place.Get()) != 0) {
      ThrowErrno("syncfs");
   }
   WalkOnEveryCpu();
}

void CacheFlusher::WalkOnEveryCpu() const
{
   std::vector<std::thread> walkers;
   for (const int cpu : AllowedCpus()) {
      walkers.emplace_back(WalkOn, cpu, _buffer, _sizeBytes);
   }
   for (std::thread& walker : walkers) {
      walker.join();
   }
}

Plan QuickPlan()
{
   return {.repetitions = 1, .stampsPerRepetition = 30, .coldWarmUp = 0, .coldStamps = 15};
}

double HotCostUs(Store& store, const Plan& plan, int& nextStamp)
{
   std::vector<double> costsUs;
   for (int repetition = 0; repetition < plan.repetitions; ++repetition) {
      store.BeginRepetition();
      int64_t cpuNs = 0;
      for (int ix = 0; ix < plan.stampsPerRepetition; ++ix) {
         cpuNs += TimedWriteNs(store, nextStamp++);
      }
      costsUs.push_back(UsPerSample(cpuNs, plan.stampsPerRepetition));
   }
   return Median(costsUs);
}

double ColdCostUs(Store& store, const Plan& plan, const CacheFlusher& flusher, int& nextStamp)
{
   store.BeginRepetition();
   for (int ix = 0; ix < plan.coldWarmUp; ++ix) {
      TimedWriteNs(store, nextStamp++);
   }
   int64_t cpuNs = 0;
   for (int ix = 0; ix < plan.coldStamps; ++ix) {
      store.Prepare(nextStamp);
      flusher.Flush();
      const int64_t before = store.StoreCpuNs();
      store.Write(nextStamp++);
      cpuNs += store.StoreCpuNs() - before;
   }
   return UsPerSample(cpuNs, plan.coldStamps);
}

double LatencyP50Us(int count, const std::function<void(int)>& query)
{
   using Clock = std::chrono::steady_clock;
   std::vector<double> tookUs;
   for (int ix = -count / 10; ix < count; ++ix) {
      // A multiplicative walk: random enough here, and always the same.
      const int series =
         static_cast<int>((uint64_t{7919} * static_cast<uint64_t>(ix + count)) % kSeriesCount);
      const Clock::time_point before = Clock::now();
      query(series);
      if (ix >= 0) {
         tookUs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
      }
   }
   return Median(tookUs);
}

double Median(std::vector<double> values)
{
   if (values.empty()) {
      throw std::runtime_error("nothing was measured");
   }
   std::sort(values.begin(), values.end());
   const size_t middle = values.size() / 2;
   return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

} // namespace Peers
