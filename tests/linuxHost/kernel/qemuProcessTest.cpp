#include "linuxHost/kernel/qemuProcess.h"
#include "linuxHost/kernel/vmGroups.h"
#include "tests/fakes/descriptorLimit.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/otherUser.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using LinuxHost::QemuProcess;

/// A process 12 that runs a VM.
class QemuProcessTest : public testing::Test, protected KernelTree {
protected:
   void WriteProcess(const std::string& process, const std::string& uuid, const char* name = "qemu",
                     const std::string& group = "/")
   {
      using namespace std::string_literals;
      const std::string path = "proc/" + process;
      Write({{path + "/cmdline", "x\0-uuid\0"s + uuid + "\0-x\0"s},
             {path + "/comm", name + "\n"s},
             {path + "/cgroup", "0::" + group + "\n"}});
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
   WriteProcess("12", "743E330A-3a3a-4e12-a823-e87af78d993d");
   WriteProcess("9", uuid);
   WriteProcess("13", uuid.substr(1));
   WriteProcess("14", "743e330a-3a3a-4e12-a823+e87af78d993d");
   WriteProcess("self", "843e330a-3a3a-4e12-a823-e87af78d993d");
   WriteProcess("4294967301", "943e330a-3a3a-4e12-a823-e87af78d993d");
   EXPECT_EQ((std::map<std::string, int32_t>{{uuid, 9}}), LinuxHost::FindQemuProcesses(Path()));
}

TEST_F(QemuProcessTest, AProcessWithTheSameArgumentDoesNotHideTheVms)
{
   const std::string uuid = "743e330a-3a3a-4e12-a823-e87af78d993d";
   const std::string scope = "/machine-qemu\\x2d1\\x2da.scope";
   const std::tuple<const char*, const char*, std::string, int32_t> appearing[] = {
      {"7", "bash", "/user.slice", 0},
      {"30", "kvm", "/", 30},
      {"20", "qemu-system-x86", "/user.slice" + scope, 20}, // anyone can create it there
      {"40", "exe", "/own.slice/own-vms.slice" + scope + "/libvirt/emulator", 40},
      {"9", "qemu-system-x86", "/system.slice", 40},
   };
   for (const auto& [process, name, group, expected] : appearing) {
      WriteProcess(process, uuid, name, group);
      EXPECT_EQ(expected, LinuxHost::FindQemuProcesses(Path())[uuid]) << process;
   }
}

TEST(VmGroupsTest, PathsOfVirtualMachinesAreThoseThatLibvirtCreates)
{
   const std::pair<const char*, bool> paths[] = {
      {"/machine.slice/machine-qemu\\x2d1\\x2da.scope", true},
      {"/machine/gold.partition/qemu-12-a.libvirt-qemu", true},
      {"/machine/qemu-x-a.libvirt-qemu", false},
      {"/machine/qemu-1.libvirt-qemu", false},
      {"/machine.slice/machine-lxc\\x2d1\\x2da.scope", false},
      {"/user/1000.user/qemu-1-a.libvirt-qemu", false},
      {"/", false},
      {"", false},
   };
   for (const auto& [path, expected] : paths) {
      EXPECT_EQ(expected, LinuxHost::IsVmGroup(path)) << path;
   }
   EXPECT_TRUE(LinuxHost::IsBelowGroup("/a/b", "/a"));
   EXPECT_TRUE(LinuxHost::IsBelowGroup("/a", "/a"));
   EXPECT_FALSE(LinuxHost::IsBelowGroup("/ab", "/a"));
   EXPECT_FALSE(LinuxHost::IsBelowGroup("/a", ""));
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
      {"1:cpu:/machine/qemu-1-a.libvirt-qemu/vcpu0\n0::/system.slice/x.service\n",
       "/machine/qemu-1-a.libvirt-qemu"},
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
          {"proc/12/ksm_stat", "ksm_rmap_items 9\nksm_zero_pages 2\n"},
          {"proc/12/status", "VmRSS:\t 9 kB\nHugetlbPages:\t   2048 kB\n"}});
   QemuProcess process(Path(), 12);
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   EXPECT_EQ(2500000U, process.ReadStartUs());
   const uint64_t pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
   EXPECT_EQ(3 * pageKb, process.ReadMergedMemory().sharedKb);
   EXPECT_EQ(2 * pageKb, process.ReadMergedMemory().zeroKb);
   EXPECT_EQ(2048U, process.ReadHugeKb());
}

TEST_F(QemuProcessTest, ALaterProcessWithTheSameIdIsAnother)
{
   // With a descriptor of its own, and without.
   for (const rlim_t limit : {Corvax::kOtherDescriptors + 8, Corvax::kOtherDescriptors}) {
      const DescriptorLimit lowered(limit);
      WriteStat();
      QemuProcess process(Path(), 12);
      ASSERT_EQ(2500000U, process.ReadStartUs());
      Remove("proc/12");
      Write({{"proc/12/stat", "12 (q) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 251 0"},
             {"proc/12/cgroup", "0::/later\n"}});
      EXPECT_FALSE(process.ReadStartUs());
      EXPECT_EQ("", process.ReadGroupPath());
      EXPECT_EQ("/later", QemuProcess(Path(), 12).ReadGroupPath());
      EXPECT_FALSE(QemuProcess(Path(), 999).ReadStartUs());
   }
}

TEST_F(QemuProcessTest, FilesThatOnlyAnotherUserMayReadHaveNoFigures)
{
   const OtherUser user;
   QemuProcess process("", 1);
   EXPECT_NO_THROW(EXPECT_EQ(0U, process.ReadMergedMemory().sharedKb));
   EXPECT_TRUE(process.ReadStartUs());
}

} // namespace
