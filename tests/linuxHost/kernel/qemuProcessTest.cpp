#include "linuxHost/kernel/qemuProcess.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using LinuxHost::QemuProcess;

/// A process 12 that runs a VM.
class QemuProcessTest : public testing::Test, protected KernelTree {
protected:
   /// The command line of a process that runs the VM.
   void WriteCommand(const std::string& process, const std::string& uuid)
   {
      using namespace std::string_literals;
      Write("proc/" + process + "/cmdline", "qemu\0-uuid\0"s + uuid + "\0-x\0"s);
   }
   /// The process started 250 ticks after the host.
   void WriteStat()
   {
      Write("proc/12/stat",
            "12 (qemu (x) S) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 250 0");
   }
};

TEST_F(QemuProcessTest, IsFoundByItsUuid)
{
   const std::string uuid = "743e330a-3a3a-4e12-a823-e87af78d993d";
   WriteCommand("12", "743E330A-3a3a-4e12-a823-e87af78d993d");
   WriteCommand("9", uuid);
   WriteCommand("13", uuid.substr(1));
   WriteCommand("14", "743e330a-3a3a-4e12-a823+e87af78d993d");
   WriteCommand("self", "843e330a-3a3a-4e12-a823-e87af78d993d");
   WriteCommand("4294967301", "943e330a-3a3a-4e12-a823-e87af78d993d");
   EXPECT_EQ((std::map<std::string, int32_t>{{uuid, 9}}), LinuxHost::FindQemuProcesses(Path()));
}

TEST_F(QemuProcessTest, GroupIsTheVmsOwnInTheFirstHierarchyThatHasOne)
{
   WriteStat();
   QemuProcess process(Path(), 12);
   const std::pair<std::string, std::string> cases[] = {
      {"3:memory:/m\n1:cpu:/machine/a/emulator\n0::/machine/b/vcpu12\n", "/machine/b"},
      {"3:memory:/m\n1:cpu:/machine/a/emulator\n0::/\n", "/machine/a"},
      {"cpu\n9:cpu\n8:cpu:x\n5::/v\n4:cpuset,cpu,cpuacct:/a:b/iothread1\n", "/a:b"},
      {"3:memory:/m\n1:name=cpu:/x\n1:cpu:/\n", "/m"},
      {"0::/machine.slice/q.scope/libvirt/emulator\n", "/machine.slice/q.scope"},
      {"0::/machine.slice/q.scope/vcpu\n", "/machine.slice/q.scope/vcpu"},
      {"1:cpu:/\n0::/\n", ""},
   };
   for (const auto& [text, expected] : cases) {
      Write("proc/12/cgroup", text);
      EXPECT_EQ(expected, process.ReadGroupPath()) << text;
   }
}

TEST_F(QemuProcessTest, FiguresComeFromItsFiles)
{
   WriteStat();
   Write({{"proc/12/ksm_merging_pages", "3\n"},
          {"proc/12/ksm_stat", "ksm_rmap_items 9\nksm_zero_pages 2\n"}});
   QemuProcess process(Path(), 12);
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   EXPECT_EQ(2500000U, process.ReadStartUs());
   const uint64_t pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
   EXPECT_EQ(3 * pageKb, process.ReadMergedMemory().sharedKb);
   EXPECT_EQ(2 * pageKb, process.ReadMergedMemory().zeroKb);
}

TEST_F(QemuProcessTest, ALaterProcessWithTheSameIdIsAnother)
{
   WriteStat();
   QemuProcess process(Path(), 12);
   ASSERT_TRUE(process.ReadStartUs());
   Remove("proc/12");
   WriteStat();
   Write("proc/12/cgroup", "0::/later\n");
   EXPECT_FALSE(process.ReadStartUs());
   EXPECT_EQ("", process.ReadGroupPath());
   EXPECT_FALSE(QemuProcess(Path(), 999).ReadStartUs());
}

} // namespace
