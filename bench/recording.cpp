#include "bench/recording.h"

#include "corvax/exception.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <numeric>
#include <random>

namespace Bench {

namespace {

using Metrix::JournalOptions;
using Metrix::StatVal;
using Metrix::TimeStamp;

/// Places of the entities in the order of their stats, and of the virtual machines from 1 on; 0 for
/// all other entities.
struct EntityNumbers {
   std::map<std::string, size_t> entities;
   std::map<std::string, size_t> vms;

   explicit EntityNumbers(const StatPlan& plan)
   {
      for (const PlannedStat& stat : plan) {
         entities.try_emplace(stat.entityId, entities.size());
         const bool isVm = stat.entityId.starts_with("vm-");
         vms.try_emplace(stat.entityId, isVm ? ++_vmCount : 0);
      }
   }

private:
   size_t _vmCount = 0;
};

StatPlan InOrder(const StatPlan& plan, RowOrder order)
{
   constexpr size_t kFifth = 5;
   std::mt19937 random; // default seed: the same order every time
   const EntityNumbers numbers(plan);
   std::vector<size_t> shuffled(numbers.entities.size());
   std::iota(shuffled.begin(), shuffled.end(), 0);
   std::ranges::shuffle(shuffled, random);
   const auto getKey = [&](const PlannedStat& stat) -> size_t {
      const size_t vm = numbers.vms.at(stat.entityId);
      switch (order) {
      case RowOrder::AS_RECORDED:
         return 0;
      case RowOrder::EVERY_FIFTH_VM_LATER:
         return vm > 0 && vm % kFifth == 0 ? 1 : 0;
      case RowOrder::VM_BY_VM:
         return vm;
      case RowOrder::ENTITIES_SHUFFLED:
         return shuffled[numbers.entities.at(stat.entityId)];
      case RowOrder::SHUFFLED:
         return random();
      }
      return 0;
   };
   std::multimap<size_t, const PlannedStat*> sorted; // equal keys stay in the plan's order
   for (const PlannedStat& stat : plan) {
      sorted.emplace(getKey(stat), &stat);
   }
   StatPlan result;
   for (const auto& [key, stat] : sorted) {
      result.push_back(*stat);
   }
   return result;
}

} // namespace

void Recording::CreateDepot(const std::string& directory, const JournalOptions& journal,
                            RowOrder order)
{
   _journal = journal;
   _depot = _lockMeter.Observe([&] { return NewDepot(directory, _agent.GetLogger(), journal); });
   CreateStats(*_depot, InOrder(_plan, order));
}

void Recording::LoadDepot(const std::string& directory, const JournalOptions& journal)
{
   _journal = journal;
   _lockMeter.Observe([&] {
      Metrix::GetStatsDepot(directory, kDepotName, _agent.GetLogger(), kMaxStatsPurged, _depot,
                            journal);
   });
   _depot->Load();
}

void Recording::RecordNextStamp()
{
   constexpr StatVal kGrowth = 1000; // so that deltas and rates are stored, too
   StatVal value = _nextStamp / kFinePeriodSec * kGrowth;
   _time.Set(_nextStamp);
   const Corvax::Locker lock(_depot.Get());
   for (const PlannedStat& stat : _plan) {
      _depot->AddSample(stat.entityId, stat.statName, _nextStamp, ++value, 0);
   }
   _depot->Flush();
   if (const std::string trouble = _depot->GetTrouble(); !trouble.empty()) {
      throw Corvax::Exception("Samples are not stored: " + trouble);
   }
   _nextStamp += kFinePeriodSec;
}

void Recording::RecordUntilSteady()
{
   for (unsigned i = CountUntilSteady(_journal); i > 0; --i) {
      RecordNextStamp();
   }
}

unsigned Recording::CountUntilSteady(const JournalOptions& journal)
{
   // Samples of the coarse interval stay in memory longest; two rollups create all rows.
   constexpr unsigned kCoarseFactor = 12;
   const unsigned longestSec = kCoarseFactor * static_cast<unsigned>(journal.checkpointSec);
   return Scaled(longestSec / kFinePeriodSec) + 2 * kStampsPerRollup + 1;
}

void RecordAndKill(const StatPlan& plan, const std::string& directory,
                   const JournalOptions& journal, TimeStamp newest)
{
   const pid_t process = ::fork();
   if (process == 0) {
      try {
         const unsigned stamps = Recording::CountUntilSteady(journal);
         Recording recording(plan, newest - uint64_t{stamps - 1} * kFinePeriodSec);
         recording.CreateDepot(directory, journal);
         recording.RecordUntilSteady();
         ::kill(::getpid(), SIGKILL);
      } catch (const std::exception& failure) {
         std::fprintf(stderr, "bench: %s\n", failure.what());
      }
      ::_exit(EXIT_FAILURE);
   }
   int status = 0;
   if (::waitpid(process, &status, 0) != process || !WIFSIGNALED(status)) {
      throw Corvax::Exception("The process that was to leave a depot failed");
   }
}

} // namespace Bench
