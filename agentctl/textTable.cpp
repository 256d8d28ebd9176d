#include "agentctl/textTable.h"

#include "console/printable.h"

#include <algorithm>
#include <numeric>

namespace Agentctl {

namespace {

using Console::CountColumns;
using Console::CutToColumns;

constexpr size_t kGap = 2;
constexpr size_t kMinFirstWidth = 8;

} // namespace

TextTable::TextTable(std::vector<Column> columns)
   : _columns(std::move(columns)), _widths(_columns.size())
{
   std::vector<std::string> titles;
   titles.reserve(_columns.size());
   for (const Column& column : _columns) {
      titles.push_back(column.title);
   }
   AddRow(titles);
}

void TextTable::AddRow(const std::vector<std::string>& cells)
{
   std::vector<std::string>& row = _rows.emplace_back();
   for (size_t i = 0; i < _columns.size(); ++i) {
      row.push_back(Console::Printable(cells.at(i)));
      _widths[i] = std::max(_widths[i], CountColumns(row.back()));
   }
}

void TextTable::ShrinkTo(size_t lineColumns)
{
   const size_t total =
      std::accumulate(_widths.begin(), _widths.end(), kGap * (_widths.size() - 1));
   if (total > lineColumns && _widths[0] > kMinFirstWidth) {
      const size_t excess = std::min(total - lineColumns, _widths[0] - kMinFirstWidth);
      _widths[0] -= excess;
   }
}

std::vector<std::string> TextTable::TakeLines()
{
   std::vector<std::string> lines;
   lines.reserve(_rows.size());
   for (const std::vector<std::string>& row : _rows) {
      lines.push_back(ToLine(row));
   }
   _rows.clear();
   return lines;
}

std::string TextTable::TakeText()
{
   std::string text;
   for (const std::string& line : TakeLines()) {
      text += line + "\n";
   }
   return text;
}

std::string TextTable::ToLine(const std::vector<std::string>& cells) const
{
   std::string line;
   for (size_t i = 0; i < cells.size(); ++i) {
      const std::string cell = CutToColumns(cells[i], _widths[i]);
      const std::string padding(_widths[i] - CountColumns(cell), ' ');
      line += _columns[i].isNumber ? padding + cell : cell + padding;
      line += std::string(kGap, ' ');
   }
   line.erase(line.find_last_not_of(' ') + 1);
   return line;
}

} // namespace Agentctl
