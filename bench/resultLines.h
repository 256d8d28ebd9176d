#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Bench {

/// The `who` of this project's own figures: as the agent opens its depot, and without a journal.
extern const char kOurs[];
extern const char kOursWithoutJournal[];

/// The figures of a program, one per work, `who` and repetition; `who` is what did the work.
/// Printed as JSON, one line per work and `who`, with the repetitions' median, lowest and highest
/// figure.
class ResultLines {
public:
   void Add(const std::string& work, const std::string& who, const std::string& unit, double value);
   void Print(std::ostream& out) const;

private:
   struct Line {
      std::string work;
      std::string who;
      std::string unit;
      std::vector<double> values;
   };
   std::vector<Line> _lines; ///< in the order of their first figures
};

/// The value that the given share (0 to 1) of the values does not exceed. Sorts the values, of
/// which there must be at least one.
double GetPercentile(std::vector<double>& values, double share);

} // namespace Bench
