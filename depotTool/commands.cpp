#include "depotTool/commands.h"

#include "console/printable.h"
#include "console/program.h"
#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/program.h"
#include "corvax/system.h"
#include "depotTool/depotCopy.h"
#include "depotTool/dump.h"
#include "depotTool/info.h"
#include "depotTool/openMetrics.h"
#include "depotTool/rollupComparison.h"

#include <cstdlib>
#include <iostream>

namespace DepotTool {

namespace {

using Corvax::Format;

/// How many findings of a kind are shown for each file.
constexpr size_t kFewFindings = 10;

/// Stamps that are later than the clock by more than this are wrong.
constexpr int64_t kToleratedLeadSec = 60;

DepotPaths MakePaths(const std::string& dir, const std::string& name)
{
   std::string path = Corvax::GetAbsolutePath(dir);
   path += path.ends_with('/') ? "" : "/";
   return {path, name};
}

TimeStamp GetNewestAllowed()
{
   return static_cast<TimeStamp>(Corvax::System::GetTime() / Corvax::kMicrosecondsPerSecond +
                                 kToleratedLeadSec);
}

size_t GetMostOfAKind(const Options& options)
{
   return options.all ? SIZE_MAX : kFewFindings;
}

/// Mends everything, which on a private copy is a check.
void MendAll(const Mending& mending, bool recompute)
{
   DepotImage depot(mending);
   depot.MendRows(mending);
   CompareRollups(mending, depot, recompute);
}

void Check(const DepotPaths& depot, Findings& findings)
{
   const PrivateCopy copy(depot);
   MendAll({copy.GetPaths(), depot, depot, false, GetNewestAllowed(), findings}, false);
}

int RunCheck(const Options& options, const DepotPaths& depot, std::ostream& out)
{
   Findings findings(GetMostOfAKind(options));
   Check(depot, findings);
   if (options.json) {
      out << findings.ToJson();
   } else {
      out << findings.ToText("repair")
          << Format("depot %1: %2 faults, %3 notes\n", Console::Printable(depot.name),
                    findings.CountFaults(), findings.CountNotes());
   }
   return findings.CountFaults() == 0 ? EXIT_SUCCESS : Console::kExitFailure;
}

void RepairInPlace(const Options& options, const DepotPaths& depot, Findings& repaired)
{
   MendAll({depot, depot, depot, true, GetNewestAllowed(), repaired}, options.recompute);
   SyncDepot(depot);
}

void RepairCopy(const Options& options, const DepotPaths& depot, const DepotPaths& target,
                Findings& repaired)
{
   if (target.HasDepot()) {
      throw Corvax::Exception(Format("there is a depot %1 in %2 already", target.name, target.dir));
   }
   try {
      CopyDepot(depot, target);
      MendAll({target, depot, target, true, GetNewestAllowed(), repaired}, options.recompute);
      SyncDepot(target);
   } catch (...) {
      RemoveCopy(target);
      throw;
   }
}

/// Another program's journal may rely on what seems wrong without it.
void RefuseUnknownJournal(const DepotPaths& depot)
{
   Metrix::JournalReader journal;
   journal.Read(depot.dir + depot.name);
   if (journal.GetState() == Metrix::JournalReader::State::UNREADABLE) {
      throw Corvax::Exception(journal.GetDetail() + ": use a program that knows it");
   }
}

int RunRepair(const Options& options, const DepotPaths& depot, std::ostream& out)
{
   RefuseUnknownJournal(depot);
   Corvax::SystemFactory& files = Corvax::System::GetFactory();
   const DepotPaths target = options.inPlace ? depot : MakePaths(options.toDir, options.name);
   if (!files.Exists(target.dir)) {
      files.CreateDirectory(target.dir);
   }
   const auto lock = files.Lock(target.GetLock());
   Findings repaired(GetMostOfAKind(options));
   if (options.inPlace) {
      RepairInPlace(options, depot, repaired);
   } else {
      RepairCopy(options, depot, target, repaired);
   }
   Findings left(GetMostOfAKind(options));
   Check(target, left);
   out << repaired.ToText("repaired");
   if (left.CountFaults() == 0) {
      out << Format("depot %1 in %2 has no faults\n", Console::Printable(target.name),
                    Console::Printable(target.dir));
      return EXIT_SUCCESS;
   }
   out << Format("depot %1 in %2 still has faults:\n", Console::Printable(target.name),
                 Console::Printable(target.dir))
       << left.ToText("repair");
   return Console::kExitFailure;
}

size_t ReadStandardInput(char* bytes, size_t count)
{
   std::cin.read(bytes, static_cast<std::streamsize>(count));
   return static_cast<size_t>(std::cin.gcount());
}

int RunRestore(const Options& options, const DepotPaths& depot, std::ostream& out)
{
   Corvax::SystemFactory& files = Corvax::System::GetFactory();
   ByteSource source = ReadStandardInput;
   if (options.dumpFile != "-") {
      const auto file = files.NewFileHandle();
      file->Open(options.dumpFile, Corvax::FILE_READ, Corvax::FileCreation::OPEN_EXISTING);
      source = [file](char* bytes, size_t count) { return file->Read(bytes, count); };
   }
   if (!files.Exists(depot.dir)) {
      files.CreateDirectory(depot.dir);
   }
   const auto lock = files.Lock(depot.GetLock());
   Restore(source, depot);
   out << Format("depot %1 in %2 is restored\n", Console::Printable(depot.name),
                 Console::Printable(depot.dir));
   return EXIT_SUCCESS;
}

/// The commands that show the contents: as they are after a repair.
int ShowContents(const Options& options, const DepotPaths& depot, std::ostream& out,
                 std::ostream& remarks)
{
   const PrivateCopy copy(depot);
   Findings findings(0);
   const DepotImage image({copy.GetPaths(), depot, depot, false, GetNewestAllowed(), findings});
   if (findings.CountFaults() > 0) {
      remarks << Format("%1: the depot has faults: see %1 check\n", kProgramName);
   }
   TextOutput output(out);
   if (options.command == Command::DUMP) {
      Dump(image, output);
   } else if (options.command == Command::EXPORT) {
      ExportOpenMetrics(image, options.intervalName, output);
   } else {
      const DepotInfo info = GetInfo(image, depot);
      output << (options.json ? ToJson(info) : ToText(info, depot));
      output.Flush();
   }
   return EXIT_SUCCESS;
}

} // namespace

int RunCommand(const Options& options, std::ostream& out, std::ostream& remarks)
{
   const DepotPaths depot = MakePaths(options.dir, options.name);
   switch (options.command) {
   case Command::CHECK:
      return RunCheck(options, depot, out);
   case Command::REPAIR:
      return RunRepair(options, depot, out);
   case Command::RESTORE:
      return RunRestore(options, depot, out);
   default:
      return ShowContents(options, depot, out, remarks);
   }
}

} // namespace DepotTool
