// The operations on files, of the platform and of the disk model that other tests use instead.

#include "corvax/exception.h"
#include "corvax/system.h"
#include "tests/fakes/diskModel.h"
#include "tests/fakes/messageOf.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

std::vector<std::string> flushed; ///< the system's names of what was flushed

int Flush(long number, int descriptor)
{
   char name[256] = {};
   const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
   EXPECT_GT(::readlink(link.c_str(), name, sizeof name - 1), 0);
   flushed.emplace_back(name);
   return static_cast<int>(::syscall(number, descriptor));
}

} // namespace

// In place of the system's.
extern "C" int fdatasync(int file)
{
   return Flush(SYS_fdatasync, file);
}
extern "C" int fsync(int file)
{
   return Flush(SYS_fsync, file);
}

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
   file->Seek(6);
   file->WriteAll("x", 1);
   EXPECT_EQ(Read(*file), std::string("ab\0\0\0\0x", 7));
   EXPECT_EQ(Files().GetFileSize(Path("f")), 7u);
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

TEST(PlatformFilesTest, SaysWhatWasTriedAndFlushesToTheDisk)
{
   const std::string directory = System::GetFactory().NewScratchDirectory();
   const std::string path = directory + "f";
   const auto file = System::GetFactory().NewFileHandle();
   EXPECT_EQ(MessageOf([&] { file->Open(path, FILE_READ, FileCreation::OPEN_EXISTING); }),
             "Cannot open " + path + " for reading: No such file or directory");
   file->Open("/dev/full", FILE_WRITE, FileCreation::OPEN_EXISTING);
   EXPECT_EQ(MessageOf([&] { file->WriteAll("abc", 3); }),
             "Cannot write 3 bytes at offset 0 of /dev/full: No space left on device");
   file->Open(path, FILE_WRITE, FileCreation::CREATE_ALWAYS);
   flushed.clear();
   file->Flush();
   System::GetFactory().SyncDirectory(directory);
   EXPECT_EQ(flushed, (Names{path, directory.substr(0, directory.size() - 1)}));
   System::GetFactory().Remove(directory);
}

INSTANTIATE_TEST_SUITE_P(PlatformAndModel, FilesTest, testing::Bool());

} // namespace
