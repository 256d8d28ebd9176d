#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace DepotTool {

enum class Severity {
   FAULT, ///< something that no depot writes, or that hides or falsifies samples
   NOTE,  ///< worth knowing; a sound depot can have it
};

/// Something found in a depot's files.
struct Finding {
   Severity severity = Severity::FAULT;
   std::string kind; ///< for programs: "row.stamp"
   std::string file;
   std::string where; ///< the place in the file; empty: the file as a whole
   std::string what;
   std::string remedy;   ///< the change that repair makes, or what to do instead
   bool byRepair = true; ///< whether repair makes it
};

/// The findings of one look at a depot: the first of each kind in each file, and the number of all.
class Findings {
public:
   /// Keeps at most `mostOfAKind` of each kind in each file.
   explicit Findings(size_t mostOfAKind) : _mostOfAKind(mostOfAKind) {}

   void Add(Finding finding);

   const std::vector<Finding>& GetKept() const { return _kept; }
   uint64_t CountFaults() const { return _faults; }
   uint64_t CountNotes() const { return _notes; }

   /// A line each, and a line for each kind in each file of which some are not kept. `remedyWord`
   /// introduces what repair does: "repair" or "repaired".
   std::string ToText(const std::string& remedyWord) const;
   /// A JSON object: findings, number of faults and notes, number of each kind in each file.
   std::string ToJson() const;

private:
   using KindInFile = std::pair<std::string, std::string>; ///< file, kind

   const size_t _mostOfAKind;
   std::vector<Finding> _kept;
   std::map<KindInFile, uint64_t> _counts;
   uint64_t _faults = 0;
   uint64_t _notes = 0;
};

} // namespace DepotTool
