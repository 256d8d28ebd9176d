#include "metrix/qshCommands.h"

#include "corvax/application.h"
#include "corvax/system.h"
#include "metrix/statsDepot.h"
#include "qsh/framework/cmdArgProcessor.h"
#include "qsh/framework/state.h"

#include <set>

namespace Metrix {

namespace {

using Corvax::Format;
using Corvax::Ref;
using QshFramework::Argument;
using QshFramework::CmdArgProcessor;
using QshFramework::Command;
using QshFramework::CommandError;
using QshFramework::CommandGroup;
using QshFramework::kCommandListed;
using QshFramework::PluginDesc;
using QshFramework::TessQshState;

constexpr int kMaxStatsPurged = 10000;
constexpr int64_t kUsPerMs = 1000;

/// The depot that all commands use, null until one is loaded, and its lock file.
Ref<StatsDepot> _statsDepot;
std::string _lockName;
int64_t _writerPid = 0; ///< the other process that uses the depot, which is then read-only here

Ref<StatsDepot> OpenDepot(const CmdArgProcessor& arguments, void (StatsDepot::*load)())
{
   const Ref<Corvax::Logger> logger = Corvax::Service::GetApp()->GetLogger("Default");
   Ref<StatsDepot> depot;
   GetStatsDepot(arguments.GetString(0), arguments.GetString(1), logger.Get(), kMaxStatsPurged,
                 depot);
   const Corvax::Locker locker(depot.Get());
   (depot.Get()->*load)();
   return depot;
}

/// If loading fails, the commands keep the previous depot.
void Load(TessQshState& state, const CmdArgProcessor& arguments)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   const std::string lockName = arguments.GetString(0) + arguments.GetString(1) + ".lock";
   const int64_t holder = factory.GetLockHolder(lockName);
   const bool isLoaded =
      holder != 0 && _statsDepot && _writerPid == 0 && factory.GetLockHolder(_lockName) == holder;
   auto depot = OpenDepot(arguments, holder == 0 ? &StatsDepot::Load : &StatsDepot::LoadReadOnly);
   if (isLoaded) {
      _statsDepot = nullptr; // releases the lock; the depot was just seen to be good
      depot = OpenDepot(arguments, &StatsDepot::Load);
   } else if (holder != 0) {
      state.Print(
         Format("StatsDepot is used by process %1; it is loaded for reading only", holder));
   }
   _statsDepot = depot;
   _lockName = lockName;
   _writerPid = isLoaded ? 0 : holder;
}

/// False, with a message printed, if no depot is loaded.
bool IsLoaded(TessQshState& state)
{
   if (!_statsDepot) {
      state.Print("StatsDepot needs to be loaded/created first");
   }
   return static_cast<bool>(_statsDepot);
}

void RequireWritable()
{
   if (_writerPid != 0) {
      throw CommandError(
         Format("StatsDepot is used by process %1; stop it and load the depot again", _writerPid));
   }
}

int64_t GetTimeMs()
{
   return Corvax::System::GetTime() / kUsPerMs;
}

void GetStatNames(TessQshState& state, const CmdArgProcessor& arguments)
{
   if (!IsLoaded(state)) {
      return;
   }
   std::vector<std::string> names;
   {
      const Corvax::Locker locker(_statsDepot.Get());
      _statsDepot->GetAvailableStatNames(arguments.GetString(0), kUnset, kUnset, names);
   }
   for (const std::string& name : names) {
      state.Print(name);
   }
}

void DeleteEntityStats(TessQshState& state, const CmdArgProcessor& arguments)
{
   if (!IsLoaded(state)) {
      return;
   }
   RequireWritable();
   const int64_t startMs = GetTimeMs();
   {
      const Corvax::Locker locker(_statsDepot.Get());
      _statsDepot->DeleteEntityStats(arguments.GetString(0));
   }
   state.Print(Format("Time taken for DeleteEntityStats : %1 ms", GetTimeMs() - startMs));
}

void CreateDummyStats(TessQshState& state, const CmdArgProcessor& arguments)
{
   if (!IsLoaded(state)) {
      return;
   }
   RequireWritable();
   const std::vector<StatsDepot::RollupType> rollups = {
      StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN};
   const std::string& entityId = arguments.GetString(0);
   const int32_t numStats = arguments.GetInt(2);
   const int64_t startMs = GetTimeMs();
   {
      const Corvax::Locker locker(_statsDepot.Get());
      std::vector<std::string> names;
      _statsDepot->GetAvailableStatNames(entityId, kUnset, kUnset, names);
      const std::set<std::string> existing(names.begin(), names.end());
      for (int32_t i = 0; i < numStats; ++i) {
         const std::string statName = Format("%1-%2", arguments.GetString(1), i);
         if (existing.contains(statName)) {
            throw CommandError(Format("Stat %1 of %2 exists already; %3 of %4 stats were created",
                                      statName, entityId, i, numStats));
         }
         _statsDepot->CreateStat(entityId, statName, StatsDepot::STATTYPE_ABSOLUTE, 1, rollups);
      }
   }
   state.Print(Format("Time taken for CreateDummyStats : %1 ms", GetTimeMs() - startMs));
}

constexpr Argument kLoadArguments[] = {
   {"depotDir", "string", "StatsDepot directory", true},
   {"depotName", "string", "StatsDepot name", true},
};
constexpr Argument kGetStatNamesArguments[] = {
   {"entityId", "string", "The entity for which to print the stat names.", true},
};
constexpr Argument kDeleteEntityStatsArguments[] = {
   {"entityId", "string", "entity id", true},
};
constexpr Argument kCreateDummyStatsArguments[] = {
   {"entityId", "string", "entity id", true},
   {"baseStatName", "string", "base stat name", true},
   {"numStats", "int", "number of stats to add", true},
};

/// A command's handler: checks the arguments, runs the operation and reports its exceptions as the
/// command's error.
template <const auto& Description, auto Operation>
int Handle(TessQshState* state, const char* /*name*/, int argc, const char* const* argv)
{
   return QshFramework::RunGuarded(
      *state, [&] { Operation(*state, CmdArgProcessor(Description, argc, argv)); });
}

constexpr Command kCommands[] = {
   {"load", Handle<kLoadArguments, Load>, "Loads an existing statsDepot.\n", kCommandListed,
    kLoadArguments},
   {"getStatNames", Handle<kGetStatNamesArguments, GetStatNames>,
    "Get the names of all stats corresponding to the entity.\n", kCommandListed,
    kGetStatNamesArguments},
   {"deleteEntityStats", Handle<kDeleteEntityStatsArguments, DeleteEntityStats>,
    "Delete all stats corresponding to the entity.\n", kCommandListed, kDeleteEntityStatsArguments},
   {"createDummyStats", Handle<kCreateDummyStatsArguments, CreateDummyStats>,
    "Creates stats entries.\n", kCommandListed, kCreateDummyStatsArguments},
};

constexpr CommandGroup kGroups[] = {
   {"metrix_statsDepot", "metrix/statsDepot/", kCommands, "Commands for statsDepot operations",
    "Operations for querying/modifying the statsDepot directly"},
};

constexpr PluginDesc kPlugin = {QshFramework::kPluginInterfaceVersion, "metrix",
                                "stats related ops", "Metrix related operations\n", kGroups};

} // namespace

const PluginDesc* GetQshPlugin()
{
   return &kPlugin;
}

} // namespace Metrix
