#include "corvax/format.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/imageLocator.h"
#include "linuxHost/kernel/controlGroups.h"
#include "linuxHost/kernel/groupParsers.h"
#include "linuxHost/kernel/processParsers.h"
#include "linuxHost/kernel/qemuProcess.h"
#include "linuxHost/loadHistory.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using Corvax::Format;
using LinuxHost::ControlGroups;
using LinuxHost::LoadHistory;
using Names = std::vector<std::string>;

const uint64_t kPageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
const std::string kTop = "sys/fs/cgroup/";

std::string Text(const std::optional<uint64_t>& number)
{
   return number ? std::to_string(*number) : "none";
}

class LinuxGroupsTest : public testing::Test, protected KernelTree {};

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

std::string CpuStat(std::string_view text)
{
   const auto stat = LinuxHost::ParseGroupCpuStat(text);
   return Text(stat.usageUs) + " " + Text(stat.systemUs) + " " + Text(stat.throttledUs) + " " +
          Text(stat.throttledNs);
}
template <auto Parse>
std::string Number(std::string_view text)
{
   return Text(Parse(text));
}
constexpr auto Pressure = Number<LinuxHost::ParsePressureUs>;
constexpr auto Start = Number<LinuxHost::ParseStartTicks>;

TEST(LinuxGroupParsersTest, AnyTextIsAcceptedAndWhatIsMissingStaysMissing)
{
   const std::tuple<std::string (*)(std::string_view), std::string_view, const char*> cases[] = {
      {CpuStat, "usage_usec 5\nusage_usecs 6\nsystem_usec x\nthrottled_time 7", "5 none none 7"},
      {CpuStat, "\nusage_usec\nthrottled_usec 99999999999999999999",
       "none none 18446744073709551615 none"},
      {Pressure, "full avg10=0 total=9\nsome avg10=0.00 total=8\n", "8"},
      {Pressure, "some total=\nsome total=7", "none"},
      {Start, "7 (a) b) c) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23\n", "22"},
      {Start, "7 (a) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", "none"},
   };
   for (const auto& [parse, text, expected] : cases) {
      EXPECT_EQ(expected, parse(text)) << text;
   }
}

TEST_F(LinuxGroupsTest, Version2AloneGivesAllFigures)
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

TEST_F(LinuxGroupsTest, BothVersionsSideBySideCompleteEachOther)
{
   Write({{kTop + "unified/cgroup.controllers", "hugetlb\n"},
          {kTop + "unified/cpu.stat", "usage_usec 100\n"},
          {kTop + "unified/a/cpu.stat", "usage_usec 20\nsystem_usec 9\n"},
          {kTop + "unified/a/cpu.pressure/", ""}, // is there, but cannot be read
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

TEST_F(LinuxGroupsTest, Version1AloneMayHaveControllersMountedAsOne)
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

TEST_F(LinuxGroupsTest, AFileIsClosedWhenTwoRoundsHaveNotReadIt)
{
   Write({{kTop + "cgroup.controllers", ""}, {kTop + "a/cpu.stat", "usage_usec 1\n"}});
   ControlGroups groups(Path());
   EXPECT_TRUE(groups.ReadCpu("/a"));
   Remove(kTop + "a/cpu.stat"); // of which a descriptor that stays open knows nothing
   for (const int rounds : {1, 1, 1, 2, 3}) {
      for (int i = 0; i < rounds; ++i) {
         groups.BeginReading();
      }
      EXPECT_EQ(rounds <= 2, groups.ReadCpu("/a").has_value()) << rounds;
   }
}

TEST_F(LinuxGroupsTest, ATreeHoldsPoolsUnderBothKindsOfNamesAndTheHostsOwnGroups)
{
   std::string deep = kTop + "unified/machine/d.partition/";
   for (int depth = 2; depth <= 17; ++depth) {
      deep += "d.partition/";
   }
   const std::string slice = kTop + "unified/machine.slice/";
   const std::string longPath = "/system.slice/" + std::string(250, 'n');
   Write({{kTop + "unified/cgroup.controllers", ""},
          {slice + "machine-g.slice/machine-g-w\\x2d1\\x2f\\x.slice/", ""},
          {slice + "machine-g.slice/machine-qemu\\x2d1.scope/in.slice/", ""},
          {slice + ".slice/", ""},
          {slice + "machine-.slice/", ""},
          {kTop + "memory/machine/g.partition/a.partition/qemu-1-a.libvirt-qemu/emulator/", ""},
          {kTop + "memory/machine/plain/x.partition/", ""},
          {kTop + "unified/system.slice/ssh.service/deep/", ""},
          {kTop + "memory" + longPath + "/", ""},
          {kTop + "unified/init.scope/", ""},
          {deep, ""}});
   const ControlGroups groups(Path());
   std::string text;
   size_t deepPools = 0;
   for (const auto& pool : LinuxHost::FindPools(groups)) {
      const bool isDeep = pool.id.starts_with("pool:d");
      deepPools += isDeep ? 1 : 0;
      text += isDeep ? "" : Format("%1 %2 %3 %4\n", pool.id, pool.name, pool.parentId, pool.path);
   }
   EXPECT_EQ("pool:machine- machine- ha-root-pool /machine.slice/machine-.slice\n"
             "pool:g g ha-root-pool /machine.slice/machine-g.slice\n"
             "pool:g/w-1\\x2f\\x w-1\\x2f\\x pool:g "
             "/machine.slice/machine-g.slice/machine-g-w\\x2d1\\x2f\\x.slice\n"
             "pool:g/a a pool:g /machine/g.partition/a.partition\n",
             text);
   EXPECT_EQ(16U, deepPools);
   EXPECT_EQ("/machine.slice", LinuxHost::FindMachinePath(groups));

   const auto system = LinuxHost::FindSystemGroups(groups);
   ASSERT_EQ(2U, system.root->child->GetSize());
   const auto& services = *(*system.root->child)[1]->child;
   ASSERT_EQ(2U, services.GetSize());
   EXPECT_EQ(longPath, system.pathByKey.at(services[0]->key));
   EXPECT_EQ("/system.slice/ssh.service", services[1]->key);
   EXPECT_EQ(5U, system.pathByKey.size());
}

TEST(LinuxPoolIdTest, APartitionHasTheIdOfItsGroups)
{
   const std::string longName(251, 'x');
   const std::pair<std::string, std::string> cases[] = {
      {"", "ha-root-pool"},
      {"/other/gold", "ha-root-pool"},
      {"/machine//gold/web", "pool:gold/web"},
      {"/machine/gold.partition/web.partition", "pool:gold/web"},
      {"/machine.slice/another-x.slice", "pool:another-x"},
      {"/machine.slice/machine-gold.slice/machine-gold-web\\x2d1.slice", "pool:gold/web-1"},
      {"/machine/" + longName, LinuxHost::PoolIdOfPartition("/machine/" + longName + ".partition")},
   };
   for (const auto& [partition, id] : cases) {
      EXPECT_EQ(id, LinuxHost::PoolIdOfPartition(partition)) << partition;
   }
}

/// "activeAverage/activePeak/runAverage/runPeak/limited" of each period, then the samples.
std::string Loads(const LoadHistory& history)
{
   const auto loads = history.Get();
   std::string text;
   for (const auto& load : {loads.oneMinute, loads.fiveMinutes, loads.fifteenMinutes}) {
      text += Format("%1/%2/%3/%4/%5 ", load.activeAverage, load.activePeak, load.runAverage,
                     load.runPeak, load.maxLimited);
   }
   EXPECT_EQ(loads.sampleCount == 0, history.IsEmpty());
   return text + std::to_string(loads.sampleCount);
}

TEST(LoadHistoryTest, PeriodsAndPeaksFollowTheRingRoundItsEnd)
{
   LoadHistory history;
   uint64_t activeUs = 1'000;
   EXPECT_EQ("0/0/0/0/0 0/0/0/0/0 0/0/0/0/0 0", Loads(history));
   // Sample n of 160 is n percent active, as much waiting, and 3.9 percent limited.
   for (int64_t n = 0; n <= 160; ++n) {
      activeUs += static_cast<uint64_t>(n * LoadHistory::kSamplePeriodUs / 100);
      history.Add(n * LoadHistory::kSamplePeriodUs, activeUs, activeUs,
                  static_cast<uint64_t>(n * 234'000));
   }
   // 151 to 160; 111 to 160; 11 to 160: averages 155.5, 135.5, 85.5, and of their doubles.
   EXPECT_EQ("155/160/311/320/3 135/160/271/320/3 85/160/171/320/3 150", Loads(history));
}

TEST(LoadHistoryTest, WhatSaysNothingMakesNoSample)
{
   LoadHistory history;
   const auto add = [&history](int64_t sec, uint64_t active, uint64_t waiting, uint64_t limited) {
      history.Add(sec * 1'000'000, active, waiting, limited);
      return Loads(history);
   };
   const std::string none = "0/0/0/0/0 0/0/0/0/0 0/0/0/0/0 0";
   const std::string half = "50/50/50/50/0 ";
   EXPECT_EQ(none, add(100, 5'000'000, 9, 9));
   EXPECT_EQ(none, add(100, 6'000'000, 9, 9));                     // no time passed
   EXPECT_EQ(none, add(106, 1, 9, 9));                             // a restart
   EXPECT_EQ(half + half + half + "1", add(118, 6'000'001, 9, 9)); // two periods: no gap yet
   EXPECT_EQ(half + half + half + "1", add(124, 6'000'002, 8, 9)); // each counter by itself
   EXPECT_EQ(half + half + half + "1", add(130, 6'000'003, 8, 8));
   EXPECT_EQ("0/0/0/0/0 " + half + half + "1", add(178, 6'000'004, 8, 8)); // a gap, 60 s old
   EXPECT_EQ(none, add(1018, 6'000'005, 8, 8));                            // 900 s old
   const std::string most = Format("%1/%1/%1/%1/%1 ", UINT32_MAX);
   EXPECT_EQ(most + most + most + "1", add(1024, UINT64_MAX, UINT64_MAX, UINT64_MAX));
   EXPECT_EQ(none, add(10, UINT64_MAX, UINT64_MAX, UINT64_MAX)); // the clock stepped after all
}

TEST_F(LinuxGroupsTest, AnImageLiesOnTheDiskThatIsCounted)
{
   const std::string devices = "sys/devices/block/";
   Write(
      {{devices + "vda/vda2/partition", "2\n"},
       {devices + "vda/slaves/", ""},
       {devices + "vdb/", ""},
       {devices + "cciss!c0d0/", ""},
       {"proc/self/mountinfo", "30\n30 1 x:6 / / rw - a /dev/none c\n30 1 4294967296:0 / / rw - a\n"
                               "30 1 0:40 / /a rw shared:1 - btrfs /dev/a\\040b\\\\\\0 rw\n"
                               "31 1 0:41 / /b - nfs rw - nfs4 /dev/x:/y rw\n"
                               "32 1 0:42 / /c rw - tmpfs  rw\n32 1 0:42 / /c rw"}});
   Link(devices + "dm-0/slaves/vda2", "../../vda/vda2");
   Link(devices + "dm-1/slaves/vdb", "../../vdb");
   Link(devices + "dm-1/slaves/dm-0", "../../dm-0");
   Link(devices + "dm-2/slaves/dm-2", "../../dm-2");
   const char* const names[] = {"vda", "vda/vda2", "dm-1", "dm-2", "cciss!c0d0"};
   for (size_t i = 0; i < std::size(names); ++i) {
      Link(Format("sys/dev/block/254:%1", i), std::string("../../devices/block/") + names[i]);
   }
   using Image = LinuxHost::VmDisk::Image;
   using Identity = LinuxHost::FileIdentity;
   const std::tuple<std::string, Image, std::optional<Identity>, std::string> cases[] = {
      {"on a partition", Image::FILE, Identity{{254, 1}, 30, {}}, "vda"},
      {"a volume on volumes", Image::BLOCK_DEVICE, Identity{{0, 6}, {}, {{254, 2}}}, "vda"},
      {"a circle", Image::FILE, Identity{{254, 3}, {}, {}}, "other"},
      {"a slash in the name", Image::FILE, Identity{{254, 4}, {}, {}}, "cciss/c0d0"},
      {"no block device", Image::BLOCK_DEVICE, Identity{{254, 0}, {}, {}}, "other"},
      {"btrfs by its mount", Image::FILE, Identity{{0, 77}, 30, {}}, "vda"},
      {"btrfs by its device", Image::FILE, Identity{{0, 40}, {}, {}}, "vda"},
      {"NFS", Image::FILE, Identity{{0, 41}, 31, {}}, "network"},
      {"tmpfs", Image::FILE, Identity{{0, 42}, 32, {}}, "other"},
      {"not mounted", Image::FILE, Identity{{0, 41}, 34, {}}, "other"},
      {"not to be seen", Image::FILE, {}, "other"},
      {"of a server", Image::NETWORK, {}, "network"},
   };
   for (const auto& [name, image, identity, expected] : cases) {
      std::map<std::string, std::optional<Identity>> files = {
         {Path("/image"), identity}, {Path("/dev/a b\\\\\\0"), Identity{{0, 6}, {}, {{254, 1}}}}};
      const LinuxHost::ImageLocator locator(
         Path(), [&files](const std::string& path) { return files[path]; });
      EXPECT_EQ(expected, locator.FindDisk({"vda", image, "/image"})) << name;
   }
   EXPECT_FALSE(LinuxHost::IdentifyFile(Path("gone")));
   EXPECT_FALSE(LinuxHost::IdentifyFile("/dev/null")->device); // a node, but no disk's
}

TEST_F(LinuxGroupsTest, AProcessIsFoundByItsUuidAndNeverTakenForALaterOne)
{
   using namespace std::string_literals;
   const std::string uuid = "743e330a-3a3a-4e12-a823-e87af78d993d";
   const std::string fields = " S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 250 0";
   Write({{"proc/12/cmdline", "qemu\0-uuid\0"s + "743E330A-3a3a-4e12-a823-e87af78d993d\0-x\0"s},
          {"proc/9/cmdline", "qemu\0-uuid\0"s + uuid},
          {"proc/13/cmdline", "qemu\0-uuid\0"s + uuid.substr(1)},
          {"proc/14/cmdline", "qemu\0-uuid\0"s + "743e330a-3a3a-4e12-a823+e87af78d993d"},
          {"proc/self/cmdline", "qemu\0-uuid\0"s + "843e330a-3a3a-4e12-a823-e87af78d993d"},
          {"proc/12/stat", "12 (qemu (x) S)" + fields},
          {"proc/12/ksm_merging_pages", "3\n"},
          {"proc/12/ksm_stat", "ksm_rmap_items 9\nksm_zero_pages 2\n"}});
   EXPECT_EQ((std::map<std::string, int32_t>{{uuid, 9}}), LinuxHost::FindQemuProcesses(Path()));

   LinuxHost::QemuProcess process(Path(), 12);
   const std::pair<std::string, std::string> groups[] = {
      {"3:memory:/m\n1:cpu:/machine/a/emulator\n0::/machine/b/vcpu12\n", "/machine/b"},
      {"3:memory:/m\n1:cpu:/machine/a/emulator\n0::/\n", "/machine/a"},
      {"cpu\n9:cpu\n8:cpu:x\n5::/v\n4:cpuset,cpu,cpuacct:/a:b/iothread1\n", "/a:b"},
      {"3:memory:/m\n1:name=cpu:/x\n1:cpu:/\n", "/m"},
      {"0::/machine.slice/q.scope/libvirt/emulator\n", "/machine.slice/q.scope"},
      {"0::/machine.slice/q.scope/vcpu\n", "/machine.slice/q.scope/vcpu"},
      {"1:cpu:/\n0::/\n", ""},
   };
   for (const auto& [text, expected] : groups) {
      Write({{"proc/12/cgroup", text}});
      EXPECT_EQ(expected, process.ReadGroupPath()) << text;
   }
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   EXPECT_EQ("2500000", Text(process.ReadStartUs()));
   EXPECT_EQ(3 * kPageKb, process.ReadMergedMemory().sharedKb);
   EXPECT_EQ(2 * kPageKb, process.ReadMergedMemory().zeroKb);
   Remove("proc/12");
   Write({{"proc/12/stat", "12 (qemu)" + fields}, {"proc/12/cgroup", "0::/later\n"}});
   EXPECT_FALSE(process.ReadStartUs());
   EXPECT_EQ("", process.ReadGroupPath());
   EXPECT_FALSE(LinuxHost::QemuProcess(Path(), 999).ReadStartUs());
}

} // namespace
