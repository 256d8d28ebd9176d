#include "console/printable.h"

#include <gtest/gtest.h>

namespace {

using namespace Console;

TEST(PrintableTest, EscapesWhatCouldControlTheTerminal)
{
   const std::pair<std::string, std::string> cases[] = {
      {"plain ä 表", "plain ä 表"},
      {"\x1b[2J\a", "\\x1b[2J\\x07"},
      {"a\r\nb\tc\x7f", "a\\x0d\\x0ab\\x09c\\x7f"},
      {"\xc2\x9b", "\\x9b"}, // the control sequence introducer in UTF-8
      {std::string("\0", 1) + "\xff\xc3", "\\x00\\xff\\xc3"}, // not UTF-8, and truncated
      {"a\xe2\x80\xae"
       "b",
       "a\\u{202e}b"},
   };
   for (const auto& [text, wanted] : cases) {
      EXPECT_EQ(Printable(text), wanted);
   }
}

TEST(PrintableTest, CutsByColumnsNotBytes)
{
   EXPECT_EQ(CutToColumns("aä表", 4), "aä表");
   EXPECT_EQ(CutToColumns("aä表b", 4), "aä…"); // the wide one would end in column 5
   EXPECT_EQ(CutToColumns("ab", 1), "…");
   EXPECT_EQ(CutToColumns("ab", 0), "");
}

} // namespace
