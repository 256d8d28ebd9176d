#include "corvax/exception.h"
#include "qsh/framework/internalState.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace {

using namespace QshFramework;

TEST(QshCommandLineTest, TakesALineApart)
{
   struct Row {
      const char* line;
      std::vector<Words> commands;
   };
   const Row rows[] = {
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
   for (const Row& row : rows) {
      EXPECT_EQ(SplitCommandLine(row.line), row.commands) << row.line;
   }
   const std::string_view refused[] = {"'",       "a 'b",  "a \"b",
                                       "\"a\\\"", "a;b\\", std::string_view("a\0b", 3)};
   for (const std::string_view line : refused) {
      EXPECT_THROW(SplitCommandLine(line), CommandError) << line;
   }
}

int Echo(TessQshState* state, const char* name, int argc, const char* const* argv)
{
   std::string text = name;
   for (int i = 0; i < argc; ++i) {
      text += std::string(" <") + argv[i] + ">";
   }
   state->Print(text);
   return argc > 1 ? 7 : 0;
}

int Throw(TessQshState* /*state*/, const char* /*name*/, int argc, const char* const* /*argv*/)
{
   if (argc == 0) {
      throw std::runtime_error("standard");
   }
   throw Corvax::OutOfMemoryException();
}

constexpr Argument kArguments[] = {{"a", "string", "", true}, {"b", "string", "", false}};
constexpr Argument kOptional[] = {{"a", "string", "", false}};
constexpr Command kCommands[] = {
   {"echo", Echo, "", kCommandListed, kArguments},
   {"throw", Throw, "", 0, kOptional},
};
constexpr Command kUnmade[] = {{"new", Echo, "", 1, {}}, {"none", nullptr, "", 1, {}}};
constexpr CommandGroup kGroup[] = {{"g", "g/", kCommands, "", ""}};
constexpr CommandGroup kUnmadeGroup[] = {{"u", "u/", kUnmade, "", ""}};

TEST(QshStateTest, RunsEveryCommandAndRemembersAFailure)
{
   struct Row {
      const char* line;
      const char* out;
      const char* err;
      bool hasFailed;
   };
   const Row rows[] = {
      {"g/echo 'a b'", "echo <a b>\n", "", false},
      {"g/echo -1", "echo <-1>\n", "", false},
      {"g/echo -- -x", "echo <--> <-x>\n", "", true}, // its status is 7
      {"g/echo; g/echo x", "echo <x>\n", "Insufficient arguments.\n", true},
      {"g/throw; g/throw x; g/echo y", "echo <y>\n", "standard\nOut of memory\n", true},
      {"quit; g/echo x", "", "", false},
   };
   const PluginDesc plugin = {kPluginInterfaceVersion, "p", "", "", kGroup};
   for (const Row& row : rows) {
      std::ostringstream out;
      std::ostringstream err;
      TessQshInternalState shell(out, err);
      shell.AddPlugin(plugin);
      shell.RunLine(row.line);
      EXPECT_EQ(out.str(), row.out) << row.line;
      EXPECT_EQ(err.str(), row.err) << row.line;
      EXPECT_EQ(shell.HasFailed(), row.hasFailed) << row.line;
   }
}

TEST(QshStateTest, RefusedPluginAddsNothing)
{
   const PluginDesc refused[] = {
      {kPluginInterfaceVersion - 1, "old", "", "", kGroup},
      {kPluginInterfaceVersion + 1, "new", "", "", kGroup},
      {kPluginInterfaceVersion, "unmade", "", "", kUnmadeGroup},
   };
   std::ostringstream out;
   TessQshInternalState shell(out, out);
   const std::vector<std::string> before = shell.GetCommandPaths();
   for (const PluginDesc& plugin : refused) {
      EXPECT_THROW(shell.AddPlugin(plugin), CommandError) << plugin.name;
   }
   EXPECT_EQ(shell.GetCommandPaths(), before);
   EXPECT_TRUE(shell.GetHelpTopics().empty());

   const PluginDesc accepted = {kPluginInterfaceVersion, "p", "", "", kGroup};
   shell.AddPlugin(accepted);
   EXPECT_THROW(shell.AddPlugin(accepted), CommandError);
   // The command that is not listed only runs.
   EXPECT_EQ(shell.GetHelpTopics(), (std::vector<std::string>{"g/", "g/echo"}));
}

} // namespace
