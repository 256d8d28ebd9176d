#include "linuxHost/kernel/kernelFile.h"
#include "corvax/format.h"
#include "hostctl/lib.h"
#include "tests/fakes/descriptorLimit.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/messageOf.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <list>

namespace {

using LinuxHost::KernelFile;

class KernelFileTest : public testing::Test, protected KernelTree {};

TEST_F(KernelFileTest, AFileOfADeviceThatCameBackIsOpenedAgain)
{
   // The file of a process behaves like a device's: it fails when its owner is gone.
   const pid_t child = fork();
   if (child == 0) {
      pause();
      _exit(0);
   }
   const std::string childStat = Corvax::Format("/proc/%1/stat", child);
   Link("stat", childStat);
   KernelFile gone(childStat);
   KernelFile back(Path("stat"));
   EXPECT_TRUE(gone.Read().starts_with(std::to_string(child) + " "));
   EXPECT_TRUE(back.Read().starts_with(std::to_string(child) + " "));
   kill(child, SIGKILL);
   waitpid(child, nullptr, 0);
   Remove("stat");
   Write("stat", std::string(5000, 'x')); // also longer than the first buffer
   EXPECT_EQ(std::string(5000, 'x'), back.Read());
   EXPECT_FALSE(gone.ReadIfPresent());
   EXPECT_THROW(gone.Read(), HostCtl::Lib::HostCtlException);
}

TEST_F(KernelFileTest, FilesBeyondTheShareAreOpenedForEachReading)
{
   Write("f", "1\n");
   const DescriptorLimit limit(Corvax::kOtherDescriptors + 2 * 8);
   std::list<KernelFile> files;
   for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(1U, files.emplace_back(Path("f")).ReadNumberIfPresent());
   }
   EXPECT_EQ(8U, LinuxHost::KeptDescriptor::GetCount());
   Write("f", "2\n");
   for (KernelFile& file : files) {
      EXPECT_EQ(2U, file.ReadNumberIfPresent());
   }
   files.clear();
   EXPECT_EQ(0U, LinuxHost::KeptDescriptor::GetCount());
}

TEST_F(KernelFileTest, AFileIsReadWithADescriptorOfTheReserve)
{
   Write("f", "1\n");
   Corvax::FillDescriptorReserve();
   const DescriptorLimit limit(200);
   std::list<Corvax::Descriptor> others;
   while (others.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC))) {
   }
   std::list<KernelFile> files;
   for (int i = 0; i < 40; ++i) {
      EXPECT_EQ(1U, files.emplace_back(Path("f")).ReadNumberIfPresent()) << "none is kept";
   }
}

TEST_F(KernelFileTest, TooManyOpenFilesNameTheLimit)
{
   const DescriptorLimit limit(200);
   EXPECT_EQ(
      "Cannot read f: Too many open files; the limit is 200 (LimitNOFILE of the agent's "
      "unit, ulimit -n)",
      MessageOf<HostCtl::Lib::HostCtlException>([] { LinuxHost::FailReading("f", EMFILE); }));
}

} // namespace
