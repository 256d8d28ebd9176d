#include "corvax/exception.h"
#include "qsh/framework/internalState.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace {

using namespace QshFramework;

TEST(QshCommandLineTest, SplitsALineIntoCommandsAndWords)
{
   const std::pair<const char*, std::vector<Words>> rows[] = {
      {"", {}},
      {" \t ;; ", {}},
      {" # a b", {}},
      {"a #b", {{"a", "#b"}}},
      {"a b;c\t d ; e\r", {{"a", "b"}, {"c", "d"}, {"e"}}},
      {"'a b;\\' \"c 'd\"", {{"a b;\\", "c 'd"}}},
      {R"("a\"b\\c\d")", {{R"(a"b\c\d)"}}},
      {R"(a\ b\;c\'d\\)", {{R"(a b;c'd\)"}}},
      {"a''b 'c'\"d\"e '' \"\"", {{"ab", "cde", "", ""}}},
   };
   for (const auto& [line, commands] : rows) {
      EXPECT_EQ(SplitCommandLine(line), commands) << line;
   }
   const std::string_view refused[] = {"'",       "a 'b",  "a \"b",
                                       "\"a\\\"", "a;b\\", std::string_view("a\0b", 3)};
   for (const std::string_view line : refused) {
      EXPECT_THROW(SplitCommandLine(line), CommandError) << line;
   }
}

int DoNothing(TessQshState* /*state*/, const char* /*name*/, int /*argc*/,
              const char* const* /*argv*/)
{
   return 0;
}

constexpr Argument kArguments[] = {{"a", "string", "", true}};
constexpr Command kCommands[] = {
   {"echo", DoNothing, "", kCommandListed, kArguments},
   {"hidden", DoNothing, "", 0, {}},
};
constexpr Command kIncomplete[] = {{"new", DoNothing, "", 1, {}}, {"none", nullptr, "", 1, {}}};
constexpr CommandGroup kGroup[] = {{"g", "g/", kCommands, "", ""}};
constexpr CommandGroup kIncompleteGroup[] = {{"u", "u/", kIncomplete, "", ""}};

TEST(QshStateTest, RefusedPluginAddsNothing)
{
   const PluginDesc refused[] = {
      {kPluginInterfaceVersion - 1, "old", "", "", kGroup},
      {kPluginInterfaceVersion + 1, "new", "", "", kGroup},
      {kPluginInterfaceVersion, "incomplete", "", "", kIncompleteGroup},
   };
   std::ostringstream out;
   TessQshInternalState shell(out, out);
   const std::vector<std::string> before = shell.GetCompletions("");
   for (const PluginDesc& plugin : refused) {
      EXPECT_THROW(shell.AddPlugin(plugin), CommandError) << plugin.name;
   }
   EXPECT_EQ(shell.GetCompletions(""), before);
   EXPECT_TRUE(shell.GetCompletions("help").empty());

   const PluginDesc accepted = {kPluginInterfaceVersion, "p", "", "", kGroup};
   shell.AddPlugin(accepted);
   EXPECT_THROW(shell.AddPlugin(accepted), CommandError);
   // The command that is not listed is no completion.
   EXPECT_EQ(shell.GetCompletions("help"), (std::vector<std::string>{"g/", "g/echo"}));
}

} // namespace
