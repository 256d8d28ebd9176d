#include "bench/resultLines.h"

#include <algorithm>
#include <cmath>

namespace Bench {

const char kOurs[] = "metrix";
const char kOursWithoutJournal[] = "metrix without journal";

void ResultLines::Add(const std::string& work, const std::string& who, const std::string& unit,
                      double value)
{
   auto line = std::ranges::find_if(
      _lines, [&](const Line& known) { return known.work == work && known.who == who; });
   if (line == _lines.end()) {
      line = _lines.insert(line, {work, who, unit, {}});
   }
   line->values.push_back(value);
}

void ResultLines::Print(std::ostream& out) const
{
   for (const Line& line : _lines) {
      std::vector<double> values = line.values;
      const double median = GetPercentile(values, 0.5);
      out << R"({"work": ")" << line.work << R"(", "who": ")" << line.who << R"(", "value": )"
          << median << R"(, "unit": ")" << line.unit << R"(", "low": )" << values.front()
          << R"(, "high": )" << values.back() << R"(, "repetitions": )" << values.size() << "}\n";
   }
   out.flush();
}

double GetPercentile(std::vector<double>& values, double share)
{
   std::ranges::sort(values);
   const double rank = std::ceil(share * static_cast<double>(values.size()));
   return values[static_cast<size_t>(std::max(rank, 1.0)) - 1];
}

} // namespace Bench
