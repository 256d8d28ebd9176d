#include "linuxHost/kernel/controlGroups.h"
#include "corvax/format.h"
#include "linuxHost/kernel/limitedTime.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using Corvax::Format;
using LinuxHost::ControlGroups;
using Names = std::vector<std::string>;

const uint64_t kPageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
const std::string kTop = "sys/fs/cgroup/";

std::string Text(const std::optional<uint64_t>& number)
{
   return number ? std::to_string(*number) : "none";
}

class ControlGroupsTest : public testing::Test, protected KernelTree {};

/// "used/waiting/throttled, granted/active/swapped/in/out" of a group.
std::string Figures(ControlGroups& groups, const std::string& path)
{
   const auto cpu = groups.ReadCpu(path);
   const auto memory = groups.ReadMemory(path);
   return (cpu ? Format("%1/%2/%3, ", cpu->usedUs, cpu->waitingUs, cpu->throttledUs) : "none, ") +
          (memory ? Format("%1/%2/%3/%4/%5", memory->grantedKb, memory->activeKb, memory->swappedKb,
                           memory->swapInKb, memory->swapOutKb)
                  : "none");
}

TEST_F(ControlGroupsTest, Version2AloneHasAllFigures)
{
   const std::string vm = "/machine.slice/machine-qemu\\x2d1\\x2da.scope";
   const std::string vmFiles = "sys/fs/cgroup" + vm;
   Write({{kTop + "cgroup.controllers", "cpuset cpu memory\n"},
          {kTop + "cpu.stat", "usage_usec 100\nsystem_usec 9\n"},
          {kTop + "memory/inner/cpu.stat", "usage_usec 1\n"}, // a group, not a controller
          {"proc/pressure/cpu", "some total=11\n"},
          {vmFiles + "/cpu.stat", "usage_usec 20\nthrottled_usec 3\n"},
          {vmFiles + "/cpu.pressure", "some total=4\n"},
          {vmFiles + "/memory.stat", "anon 1024\nshmem 2048\nactive_anon 4096\nactive_file 8192\n"
                                     "total_rss 9999\npswpin 1\npswpout 2\n"},
          {vmFiles + "/memory.swap.current", "16384\n"},
          {vmFiles + "/libvirt/vcpu1/cpu.stat", "usage_usec 7\nsystem_usec 5\n"},
          {kTop + "plain/vcpu0/cpu.stat", "system_usec 6\n"}});
   ControlGroups groups(Path());
   EXPECT_EQ((Names{"machine.slice", "memory", "plain"}), groups.ListChildren("/"));
   EXPECT_EQ("100/11/0, none", Figures(groups, "/"));
   EXPECT_EQ(Format("20/4/3, 3/12/16/%1/%2", kPageKb, 2 * kPageKb), Figures(groups, vm));
   EXPECT_EQ("5", Text(groups.ReadVcpuSystemUs(vm, 1)));
   EXPECT_EQ("none", Text(groups.ReadVcpuSystemUs(vm, 0)));
   EXPECT_EQ("6", Text(groups.ReadVcpuSystemUs("/plain", 0)));
}

TEST_F(ControlGroupsTest, BothVersionsTogetherCompleteEachOther)
{
   Write({{kTop + "unified/cgroup.controllers", "hugetlb\n"},
          {kTop + "unified/cpu.stat", "usage_usec 100\n"},
          {kTop + "unified/a/cpu.stat", "usage_usec 20\nsystem_usec 9\n"},
          {kTop + "unified/a/cpu.pressure/", ""}, // exists, but cannot be read
          {kTop + "cpu/a/cpu.stat", "throttled_time 3999\n"},
          {kTop + "memory/a/memory.stat", "rss 1\ntotal_rss 1024\ntotal_shmem 2048\nanon 1\n"
                                          "total_active_anon 4096\ntotal_active_file 8192\n"
                                          "total_swap 16384\n"},
          {kTop + "cpuacct/old/cpuacct.usage", "5999\n"}});
   ControlGroups groups(Path());
   EXPECT_EQ((Names{"a", "old"}), groups.ListChildren("/"));
   EXPECT_EQ("100/0/0, none", Figures(groups, "/"));
   EXPECT_EQ("20/0/3, 3/12/16/0/0", Figures(groups, "/a"));
   EXPECT_EQ("5/0/0, none", Figures(groups, "/old"));
   EXPECT_EQ("none, none", Figures(groups, "/gone"));
}

TEST_F(ControlGroupsTest, Version1AloneMayHaveControllersMountedTogether)
{
   Write({{kTop + "cpu,cpuacct/cpuacct.usage", "9000\n"},
          {kTop + "cpu,cpuacct/a/cpuacct.usage", "8000\n"},
          {kTop + "cpu,cpuacct/a/cpu.stat", "nr_throttled 1\nthrottled_time 7000\n"},
          {"proc/pressure/cpu", "some total=2\n"}});
   Link(kTop + "cpuacct", "cpu,cpuacct");
   ControlGroups groups(Path());
   EXPECT_EQ(Names{"a"}, groups.ListChildren("/"));
   EXPECT_EQ("9/2/0, none", Figures(groups, "/"));
   EXPECT_EQ("8/0/7, none", Figures(groups, "/a"));
   EXPECT_FALSE(groups.ReadVcpuSystemUs("/a", 0));
}

TEST_F(ControlGroupsTest, LimitsInsideAVmAreFoundAndAddUp)
{
   const std::string v2 = kTop + "unified/vm/";
   const std::string v1 = kTop + "cpu/vm/";
   Write({{kTop + "unified/cgroup.controllers", "cpu\n"},
          {v2 + "libvirt/cpu.max", "max 100000\n"},
          {v2 + "libvirt/vcpu0/cpu.max", "50000 100000\n"},
          {v2 + "libvirt/vcpu1/cpu.max", "50000 100000\n"},
          {v2 + "other/cpu.max", "50000 100000\n"},
          {v1 + "emulator/cpu.cfs_quota_us", "5000\n"},
          {v1 + "emulator/cpu.stat", "throttled_time 9000\n"},
          {v1 + "iothread1/cpu.cfs_quota_us", "-1\n"}});
   ControlGroups groups(Path());
   EXPECT_EQ((Names{"/vm/emulator", "/vm/libvirt/vcpu0", "/vm/libvirt/vcpu1"}),
             groups.FindLimitedVmGroups("/vm"));
   LinuxHost::LimitedTime limited;
   const std::tuple<int, int, uint64_t> readings[] = {
      {70, 1000, 0},                                // from before it was read
      {75, 1000, 5}, {90, 1003, 23}, {2, 1003, 23}, // a new group of that name
      {5, 1003, 26},
   };
   for (const auto& [first, second, sum] : readings) {
      Write({{v2 + "libvirt/vcpu0/cpu.stat", Format("throttled_usec %1\n", first)},
             {v2 + "libvirt/vcpu1/cpu.stat", Format("throttled_usec %1\n", second)}});
      EXPECT_EQ(sum, limited.ReadUs(groups, "/vm")) << first << " " << second;
   }
}

TEST_F(ControlGroupsTest, AFileIsClosedAfterTwoRunsWithoutARead)
{
   Write({{kTop + "cgroup.controllers", ""}, {kTop + "a/cpu.stat", "usage_usec 1\n"}});
   ControlGroups groups(Path());
   EXPECT_TRUE(groups.ReadCpu("/a"));
   Remove(kTop + "a/cpu.stat"); // still readable through an open descriptor
   for (const int runs : {1, 1, 1, 2, 3}) {
      for (int i = 0; i < runs; ++i) {
         groups.BeginReading();
      }
      EXPECT_EQ(runs <= 2, groups.ReadCpu("/a").has_value()) << runs;
   }
}

} // namespace
