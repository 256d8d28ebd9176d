// The operations on files, of the platform and of the disk model that other tests use instead.

#include "corvax/exception.h"
#include "corvax/system.h"
#include "tests/fakes/diskModel.h"
#include "tests/fakes/messageOf.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace Corvax;

class FilesTest : public testing::TestWithParam<bool> {
protected:
   void SetUp() override
   {
      if (GetParam()) {
         _model = std::make_unique<DiskModel>(Disk());
      }
      _directory = Files().NewScratchDirectory();
   }
   void TearDown() override { Files().Remove(_directory); }

   static SystemFactory& Files() { return System::GetFactory(); }
   std::string Path(const std::string& name) const { return _directory + name; }

   Ref<FileHandle> Write(const std::string& name, const std::string& bytes) const
   {
      const auto file = Files().NewFileHandle();
      file->Open(Path(name), FILE_READ_WRITE, FileCreation::CREATE_ALWAYS);
      file->WriteAll(bytes.data(), bytes.size());
      return file;
   }
   static std::string Read(FileHandle& file)
   {
      std::string bytes(100, '?');
      file.Seek(0);
      bytes.resize(file.Read(bytes.data(), bytes.size()));
      return bytes;
   }
   std::vector<std::string> List(const std::string& name = {}) const
   {
      std::vector<std::string> names = Files().ListDirectory(Path(name));
      std::ranges::sort(names);
      return names;
   }

private:
   std::unique_ptr<DiskModel> _model;
   std::string _directory;
};

using Names = std::vector<std::string>;

TEST_P(FilesTest, TruncatingCutsOrAddsZeroBytes)
{
   const auto file = Write("f", "abcdef");
   file->Truncate(2);
   EXPECT_EQ(Read(*file), "ab");
   file->Truncate(4);
   EXPECT_EQ(Read(*file), std::string("ab\0\0", 4));
   EXPECT_EQ(Files().GetFileSize(Path("f")), 4u);
}

TEST_P(FilesTest, ReservingSpaceChangesNeitherSizeNorContent)
{
   const auto file = Write("f", "abc");
   file->Allocate(0, 100000);
   EXPECT_EQ(Read(*file), "abc");
   EXPECT_EQ(file->GetSize(), 3u);
}

TEST_P(FilesTest, AFileKnowsWhetherItIsStillAtItsPath)
{
   const auto file = Write("f", "old");
   EXPECT_TRUE(file->IsAt(Path("f")));
   Files().Rename(Path("f"), Path("g"));
   EXPECT_FALSE(file->IsAt(Path("f")));
   EXPECT_TRUE(file->IsAt(Path("g")));
   const auto other = Write("f", "new");
   Files().Rename(Path("f"), Path("g"));
   EXPECT_FALSE(file->IsAt(Path("g")));
   EXPECT_TRUE(other->IsAt(Path("g")));
   EXPECT_EQ(Read(*file), "old");
   Files().Remove(Path("g"));
   EXPECT_FALSE(other->IsAt(Path("g")));
}

TEST_P(FilesTest, DirectoriesAreListedRenamedAndRemovedWithWhatIsInThem)
{
   Files().CreateDirectory(Path("a/b"));
   Write("a/b/f", "1");
   Write("a/b/g", "2");
   EXPECT_EQ(List("a"), Names{"b"});
   Files().Rename(Path("a/b"), Path("c"));
   EXPECT_EQ(List(), (Names{"a", "c"}));
   EXPECT_EQ(List("c/"), (Names{"f", "g"}));
   EXPECT_EQ(List("a"), Names{});
   Files().SyncDirectory(Path(""));
   Files().Remove(Path("c"));
   Files().Remove(Path("c"));
   EXPECT_EQ(List(), Names{"a"});
   EXPECT_NE(MessageOf([&] { Files().SyncDirectory(Path("c")); }), "");
   EXPECT_NE(MessageOf([&] { List("c"); }), "");
}

TEST_P(FilesTest, ALockExcludesOthersUntilItIsGivenBack)
{
   EXPECT_EQ(Files().GetLockHolder(Path("f")), 0);
   EXPECT_FALSE(Files().Exists(Path("f")));
   auto lock = Files().Lock(Path("f"));
   EXPECT_GT(Files().GetLockHolder(Path("f")), 0);
   const std::string holder = std::to_string(Files().GetLockHolder(Path("f")));
   EXPECT_NE(MessageOf([&] { Files().Lock(Path("f")); }).find("process " + holder),
             std::string::npos);
   lock = nullptr;
   EXPECT_EQ(Files().GetLockHolder(Path("f")), 0);
   EXPECT_NE(Files().Lock(Path("f")), nullptr);
}

INSTANTIATE_TEST_SUITE_P(PlatformAndModel, FilesTest, testing::Bool());

} // namespace
