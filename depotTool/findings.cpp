#include "depotTool/findings.h"

#include "console/printable.h"
#include "corvax/format.h"

#include <nlohmann/json.hpp>

namespace DepotTool {

using Console::Printable;
using Corvax::Format;

void Findings::Add(Finding finding)
{
   ++(finding.severity == Severity::FAULT ? _faults : _notes);
   if (++_counts[{finding.file, finding.kind}] <= _mostOfAKind) {
      _kept.push_back(std::move(finding));
   }
}

std::string Findings::ToText(const std::string& remedyWord) const
{
   std::string text;
   for (const Finding& finding : _kept) {
      text += finding.severity == Severity::NOTE ? "note: " : "";
      text += Printable(finding.file) + ": ";
      text += finding.where.empty() ? "" : Printable(finding.where) + ": ";
      text += Printable(finding.what);
      if (!finding.remedy.empty()) {
         text += Format("; %1: %2", finding.byRepair ? remedyWord : "to do", //
                        Printable(finding.remedy));
      }
      text += "\n";
   }
   for (const auto& [kindInFile, count] : _counts) {
      if (count > _mostOfAKind) {
         text += Format("%1: %2 more of the kind %3\n", Printable(kindInFile.first),
                        count - _mostOfAKind, kindInFile.second);
      }
   }
   return text;
}

std::string Findings::ToJson() const
{
   nlohmann::json findings = nlohmann::json::array();
   for (const Finding& finding : _kept) {
      findings.push_back({
         {"severity", finding.severity == Severity::FAULT ? "fault" : "note"},
         {"kind", finding.kind},
         {"file", Printable(finding.file)},
         {"where", Printable(finding.where)},
         {"what", Printable(finding.what)},
         {"remedy", Printable(finding.remedy)},
         {"byRepair", finding.byRepair},
      });
   }
   nlohmann::json counts = nlohmann::json::array();
   for (const auto& [kindInFile, count] : _counts) {
      counts.push_back(
         {{"file", Printable(kindInFile.first)}, {"kind", kindInFile.second}, {"count", count}});
   }
   const nlohmann::json document = {
      {"findings", findings}, {"counts", counts}, {"faults", _faults}, {"notes", _notes}};
   return document.dump(2) + "\n";
}

} // namespace DepotTool
