#pragma once

#include <string>
#include <vector>

namespace Agentctl {

/// Rows of text under titles, in columns as wide as their widest cell. What is given is made
/// printable.
class TextTable {
public:
   struct Column {
      std::string title;
      bool isNumber = false; ///< numbers stand to the right
   };

   explicit TextTable(std::vector<Column> columns);

   /// One cell a column.
   void AddRow(const std::vector<std::string>& cells);

   /// Makes the first column narrower, but not under eight, so that a line takes at most so many
   /// columns of the terminal. To be called once all rows are there.
   void ShrinkTo(size_t lineColumns);

   /// The lines added since the last call, the titles before the first. Columns only grow.
   std::vector<std::string> TakeLines();

   /// The same as one text, each line with its end.
   std::string TakeText();

private:
   std::string ToLine(const std::vector<std::string>& cells) const;

   std::vector<Column> _columns;
   std::vector<size_t> _widths;
   std::vector<std::vector<std::string>> _rows; ///< the titles are the first row
};

} // namespace Agentctl
