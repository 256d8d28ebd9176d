#include "metrix/depotAside.h"

#include "corvax/exception.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace Metrix;
using Files = std::map<std::string, std::string>;

const Files kDepot = {{"d.xml", "x"},       {"d.idMap", "i"},     {"d-20.stats", "a"},
                      {"d-300.stats", "b"}, {"d.journal.0", "j"}, {"d.journal.1", "k"}};
const Files kOthers = {{"d.tar.gz", "t"},    {"d-20.stats.bak", "c"}, {"d-.stats", "e"},
                       {"d-x20.stats", "f"}, {"de.xml", "o"},         {"de-20.stats", "p"}};

/// A depot in a directory with other files.
class DepotAsideTest : public testing::Test {
protected:
   DepotAsideTest() { Write(kDepot); }

   void Write(const Files& files)
   {
      for (const auto& [name, bytes] : files) {
         _scratch.Write(name, bytes);
      }
   }
   bool HasDirectory(const std::string& name) const
   {
      return std::filesystem::is_directory(_scratch.Path() + name);
   }

   const Scratch _scratch;
   FaultyFiles _files;
};

TEST_F(DepotAsideTest, TakesTheDepotsFilesAndNoOthers)
{
   Write(kOthers);
   EXPECT_EQ(SetDepotAside(_scratch.Path(), "d"), _scratch.Path() + "d.aside");
   EXPECT_EQ(_scratch.ReadAll("d.aside/"), kDepot);
   EXPECT_EQ(_scratch.ReadAll(), kOthers);
   _scratch.Write("d.lock", "1");
   EXPECT_EQ(SetDepotAside(_scratch.Path(), "d"), "");
   EXPECT_EQ(SetDepotAside(_scratch.Path() + "none/", "d"), "");
}

TEST_F(DepotAsideTest, FilesOfARunningProcessAreLeftAlone)
{
   const auto lock = Corvax::NewPosixFactory()->Lock(_scratch.Path() + "d.lock");
   EXPECT_THROW(SetDepotAside(_scratch.Path(), "d"), Corvax::Exception);
   EXPECT_EQ(_scratch.ReadAll(), kDepot);
   std::filesystem::create_directory(_scratch.Path() + "d.aside.new");
   EXPECT_THROW(FinishSetAside(_scratch.Path(), "d"), Corvax::Exception);
}

TEST_F(DepotAsideTest, DepotWithoutStatsDoesNotReplaceOneThatHasSome)
{
   const Files unfinished = {{"d.idMap", ""}, {"d-20.stats", "new"}};
   SetDepotAside(_scratch.Path(), "d");
   Write(unfinished);
   EXPECT_EQ(SetDepotAside(_scratch.Path(), "d"), "");
   EXPECT_EQ(_scratch.ReadAll("d.aside/"), kDepot);
   std::filesystem::remove_all(_scratch.Path() + "d.aside");
   SetDepotAside(_scratch.Path(), "d");
   EXPECT_EQ(_scratch.ReadAll("d.aside/"), unfinished);
}

/// Every operation of a move is the last one once, and so is every one of what completes it.
TEST_F(DepotAsideTest, CrashAtAnyPointLeavesOneWholeDepot)
{
   const Files older = {{"d.xml", "older"}, {"d.idMap", "older"}};
   Files withoutDescription = kDepot;
   withoutDescription.erase("d.xml");
   for (const Files& files : {kDepot, withoutDescription}) {
      bool hasCrashed = true;
      for (int step = 1; hasCrashed; ++step) {
         SCOPED_TRACE(step);
         std::filesystem::remove_all(_scratch.Path());
         std::filesystem::create_directory(_scratch.Path());
         Write(older);
         SetDepotAside(_scratch.Path(), "d");
         Write(files);
         const auto crashAt = [&](int operation, const auto& action) {
            _files.failAt = operation;
            _files.failAll = true;
            const bool hasFailed = !MessageOf(action).empty();
            _files.Recover();
            return hasFailed;
         };
         const auto finish = [&] { FinishSetAside(_scratch.Path(), "d"); };
         hasCrashed = crashAt(step, [&] { SetDepotAside(_scratch.Path(), "d"); });
         crashAt(step / 3 + 1, finish);
         finish();
         const Files left = _scratch.ReadAll();
         const Files aside = HasDirectory("d.aside") ? _scratch.ReadAll("d.aside/") : Files{};
         const bool isUntouched = left == files && aside == older;
         EXPECT_TRUE(isUntouched || (left.empty() && aside == files));
         EXPECT_FALSE(HasDirectory("d.aside.new") || HasDirectory("d.aside.old"));
         EXPECT_EQ(hasCrashed || left.empty(), true);
      }
   }
}

TEST_F(DepotAsideTest, InterruptedMoveOfAStoreLeavesTheDepotInPlace)
{
   _files.failAt = 4; // after the store's rename
   EXPECT_THROW(SetAside(_scratch.Path(), "d", {"d-20.stats"}), Corvax::PlatformException);
   FinishSetAside(_scratch.Path(), "d");
   EXPECT_EQ(_scratch.ReadAll("d.aside/"), (Files{{"d-20.stats", "a"}}));
   EXPECT_EQ(_scratch.ReadAll().count("d-300.stats") + _scratch.ReadAll().count("d.xml"), 2u);
}

} // namespace
