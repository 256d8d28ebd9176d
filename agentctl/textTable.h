#pragma once

#include <string>
#include <vector>

namespace Agentctl {

/// Rows of text under titles, in columns as wide as their widest cell. Makes the cells printable.
class TextTable {
public:
   struct Column {
      std::string title;
      bool isNumber = false; ///< aligned to the right
   };

   explicit TextTable(std::vector<Column> columns);

   /// Takes one cell per column.
   void AddRow(const std::vector<std::string>& cells);

   /// Makes the first column narrower, but not below eight, to fit the lines into this width. Call
   /// it after adding all rows.
   void ShrinkTo(size_t lineColumns);

   /// The lines added since the last call; the first line of the first call has the titles. Columns
   /// only get wider from call to call.
   std::vector<std::string> TakeLines();

   /// The same as one text, with line ends.
   std::string TakeText();

private:
   std::string ToLine(const std::vector<std::string>& cells) const;

   std::vector<Column> _columns;
   std::vector<size_t> _widths;
   std::vector<std::vector<std::string>> _rows; ///< not taken yet; initially the titles
};

} // namespace Agentctl
