#include "metrix/qshCommands.h"

#include "corvax/application.h"
#include "corvax/system.h"
#include "metrix/statsDepot.h"
#include "qsh/framework/cmdArgProcessor.h"
#include "qsh/framework/state.h"

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

/// The depot that all commands use; null until one is loaded.
Ref<StatsDepot> _statsDepot;

StatsDepot* GetLoadedDepot()
{
   if (!_statsDepot) {
      throw CommandError("StatsDepot needs to be loaded/created first");
   }
   return _statsDepot.Get();
}

void Load(TessQshState& /*state*/, const CmdArgProcessor& arguments)
{
   const Ref<Corvax::Logger> logger = Corvax::Service::GetApp()->GetLogger("Default");
   Ref<StatsDepot> depot;
   GetStatsDepot(arguments.GetString(0), arguments.GetString(1), logger.Get(), kMaxStatsPurged,
                 depot);
   {
      const Corvax::Locker locker(depot.Get());
      depot->Load();
   }
   _statsDepot = depot; // last: if loading fails, the commands keep the previous one
}

void GetStatNames(TessQshState& state, const CmdArgProcessor& arguments)
{
   StatsDepot* const depot = GetLoadedDepot();
   std::vector<std::string> names;
   {
      const Corvax::Locker locker(depot);
      depot->GetAvailableStatNames(arguments.GetString(0), kUnset, kUnset, names);
   }
   for (const std::string& name : names) {
      state.Print(name);
   }
}

void DeleteEntityStats(TessQshState& state, const CmdArgProcessor& arguments)
{
   StatsDepot* const depot = GetLoadedDepot();
   const int64_t startUs = Corvax::System::GetTime();
   {
      const Corvax::Locker locker(depot);
      depot->DeleteEntityStats(arguments.GetString(0));
   }
   const int64_t endUs = Corvax::System::GetTime();
   state.Print(Format("Time taken for DeleteEntityStats : %1 ms", (endUs - startUs) / kUsPerMs));
}

void CreateDummyStats(TessQshState& state, const CmdArgProcessor& arguments)
{
   StatsDepot* const depot = GetLoadedDepot();
   const std::vector<StatsDepot::RollupType> rollups = {
      StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN};
   const int32_t numStats = arguments.GetInt(2);
   const int64_t startUs = Corvax::System::GetTime();
   {
      const Corvax::Locker locker(depot);
      for (int32_t i = 0; i < numStats; ++i) {
         depot->CreateStat(arguments.GetString(0), Format("%1-%2", arguments.GetString(1), i),
                           StatsDepot::STATTYPE_ABSOLUTE, 1, rollups);
      }
   }
   const int64_t endUs = Corvax::System::GetTime();
   state.Print(Format("Time taken for CreateDummyStats : %1 ms", (endUs - startUs) / kUsPerMs));
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
