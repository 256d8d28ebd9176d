#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Bench {

/// Who the figures of the project's own code are of.
extern const char kOurs[];

/// The figures of a program: one a work, who did it and repetition. Printed as JSON, a line for
/// each work and who, with the median and the lowest and highest of the repetitions.
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

/// The value that the given share (0 to 1) of the values does not exceed; they are sorted by it.
/// At least one value.
double GetPercentile(std::vector<double>& values, double share);

} // namespace Bench
