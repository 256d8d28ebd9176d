#include "linuxHost/linuxHostProvider.h"

#include "corvax/format.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/messageOf.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>

namespace {

using Corvax::Format;
using HostCtl::Lib::HostCtlException;

/// A tree of kernel files, and the provider that reads it.
class LinuxHostTest : public testing::Test, protected KernelTree {
protected:
   HostCtl::Host& Host()
   {
      if (!_host) {
         _provider = LinuxHost::NewLinuxHostProvider({GetRoot(), _nics, _cpuMhz}, nullptr);
         _host.reset(_provider->GetHost());
      }
      return *_host;
   }
   auto Resources() { return Owned(Host().GetResourceInfo()); }
   auto Cpus() { return Owned(Owned(Host().GetHardwareInfo())->GetCpuInfo()); }
   auto PhysicalBytes()
   {
      return Owned(Owned(Host().GetHardwareInfo())->GetMemoryInfo())->GetPhysicalBytes();
   }
   /// "used/idle" of each CPU by its number.
   std::string CpuTimes()
   {
      std::string text;
      for (const auto& cpu : Resources()->GetCpuStats()) {
         text += Format("%1/%2 ", cpu.usedUs, cpu.idleUs);
      }
      return text;
   }
   /// "name:readOps/writeOps/read/written/commands/aborted" of each disk.
   std::string Disks()
   {
      std::string text;
      for (auto* lun : Owned(Host().GetStorageInfo())->GetDiskLuns()) {
         const auto owned = Owned(lun);
         const auto figures = lun->GetStatistics();
         EXPECT_EQ(512U, lun->GetBlockSizeBytes());
         text += Format("%1:%2/%3/%4/%5/%6/%7 ", lun->GetScsiName(), figures.readOperations,
                        figures.writeOperations, figures.blocksRead, figures.blocksWritten,
                        figures.commands, figures.abortedCommands);
      }
      return text;
   }
   /// "name:rx/tx/rxPackets/txPackets" of each NIC, "name:none" for one without a port.
   std::string Nics()
   {
      std::string text;
      for (auto* nic : Owned(Host().GetNetworkInfo())->GetPhysicalNics()) {
         const auto owned = Owned(nic);
         const auto port = Owned(nic->GetUplinkPort());
         const auto figures = port ? port->GetStatistics() : HostCtl::Network::PortStatistics{};
         text += nic->GetName() +
                 (port ? Format(":%1/%2/%3/%4 ", figures.bytesReceived, figures.bytesSent,
                                figures.packetsReceived, figures.packetsSent)
                       : ":none ");
      }
      return text;
   }

   std::vector<std::string> _nics;
   uint32_t _cpuMhz = 0;
   std::unique_ptr<HostCtl::HostProvider> _provider;
   std::unique_ptr<HostCtl::Host> _host;
};

TEST_F(LinuxHostTest, CpuTimesNeverDecreaseAndAnOfflineCpuKeepsItsIndex)
{
   // Fields: user nice system idle iowait.
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   const std::pair<const char*, const char*> readings[] = {
      {"cpu0 1 0 1 5 5\ncpu1 2 0 0 7 0\ncpu2 3 0 0 8 0\n", "20000/100000 20000/70000 30000/80000 "},
      {"cpu0 1 0 1 5 4\ncpu1 1 0 0 9 0\ncpu2 3 0 0 8 0\n", "20000/100000 20000/90000 30000/80000 "},
      {"cpu0 1 0 2 6 6\ncpu2 4 0 0 8 0\n", "30000/120000 20000/90000 40000/80000 "},
      {"cpu0 1 0 2 6 6\n", "30000/120000 20000/90000 40000/80000 "},
      {"cpu0 1 0 2 6 6\ncpu4 9 0 0 9 0\n", "30000/120000 20000/90000 40000/80000 0/0 0/0 "},
      {"cpu4 11 0 0 8 0\n", "30000/120000 20000/90000 40000/80000 0/0 20000/0 "},
   };
   for (const auto& [text, expected] : readings) {
      Write("proc/stat", text);
      EXPECT_EQ(expected, CpuTimes()) << text;
   }
}

TEST_F(LinuxHostTest, MemoryFiguresComeFromTheirFields)
{
   // Each field is another power of two, so that a sum identifies its terms.
   Write("proc/meminfo", "MemTotal: 1048576 kB\nMemFree: 1 kB\nMemAvailable: 2 kB\nActive: 4 kB\n"
                         "Active(anon): 9 kB\nSwapTotal: 24 kB\nSwapFree: 8 kB\n"
                         "SwapCached: 9 kB\nAnonPages: 32 kB\nShmem: 64 kB\n"
                         "Slab: 128 kB\nSReclaimable: 256 kB\nKernelStack: 512 kB\n"
                         "PageTables: 1024 kB\nSecPageTables: 2048 kB\nVmallocUsed: 4096 kB\n"
                         "Percpu: 8192 kB\nHugetlb: 16385 kB\n");
   Write("proc/vmstat", "pswpin 16\npswpinx 9\npswpout 32");
   Write("sys/kernel/mm/ksm/pages_shared", "1\n");
   Write("sys/kernel/mm/ksm/pages_sharing", "2\n");
   Write("sys/kernel/mm/ksm/ksm_zero_pages", "8\n");
   const uint64_t pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
   const auto stats = Resources()->GetMemoryStats();
   const std::vector<uint64_t> expected = {
      1,           2,           4,       24 - 8,
      32 + 64,     128,         256,     128 + 1024 + 2048 + 4096 + 8192,
      16 * pageKb, 32 * pageKb, pageKb,  3 * pageKb,
      8 * pageKb,  16,          1U << 30};
   EXPECT_EQ(expected,
             (std::vector<uint64_t>{
                stats.freeKb, stats.unreservedKb, stats.activeKb, stats.swapUsedKb, stats.grantedKb,
                stats.heapKb, stats.heapFreeKb, stats.sysUsageKb, stats.swapInKb, stats.swapOutKb,
                stats.sharedCommonKb, stats.sharedKb, stats.zeroKb,
                Resources()->GetCapacity().reservedMemoryMb, PhysicalBytes()}));
}

TEST_F(LinuxHostTest, AFigureThatTheKernelLacksIsZero)
{
   Write("proc/meminfo", "MemFree: 400 kB\nSwapFree: 9 kB\nKernelStack: 7 kB\n");
   const auto stats = Resources()->GetMemoryStats();
   EXPECT_EQ(400U, stats.freeKb);
   EXPECT_EQ(7U, stats.sysUsageKb); // stacks alone, as VmallocUsed does not include them here
   EXPECT_EQ(0U, stats.sharedKb + stats.zeroKb + stats.swapInKb + stats.swapOutKb +
                    stats.grantedKb + stats.swapUsedKb);
}

TEST_F(LinuxHostTest, OnlyWholeDisksWithDataOfTheirOwnAreCounted)
{
   const std::string counts = " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n";
   const std::string none = " 0 0 0 0 0 0 0 0 0 0 0\n";
   Write("proc/diskstats", "8 0 sda" + counts + "8 1 sda1" + counts + "43 0 nbd0" + none +
                              "43 1 nbd1" + counts + "7 1 loop1" + counts + "252 0 zram0" + counts +
                              "1 0 ram0" + none + "1 1 ram1" + counts + "253 0 dm-0" + counts +
                              "104 0 cciss/c0d0" + counts);
   Write("sys/block/sda/device/iotmo_cnt", "0x1f\n");
   MakeDirectory("sys/block/sda/slaves");
   Write("sys/block/nbd0/size", "0\n");
   Write("sys/block/nbd1/size", "8\n");
   MakeDirectory("sys/block/loop1/loop");
   MakeDirectory("sys/block/zram0");
   Write("sys/block/ram0/size", "8\n");
   Write("sys/block/ram1/size", "8\n");
   Write("sys/block/dm-0/size", "8\n");
   MakeDirectory("sys/block/dm-0/slaves/sda");
   MakeDirectory("sys/block/cciss!c0d0");
   const std::string figures = ":1/5/3/7/34/0 ";
   EXPECT_EQ("sda:1/5/3/7/34/31 nbd1" + figures + "ram1" + figures + "cciss/c0d0" + figures,
             Disks());
}

TEST_F(LinuxHostTest, DisksMayComeAndGo)
{
   const std::string counts = " 1 0 1 0 0 0 0 0 0 0 0\n";
   const std::string slot = "43 0 nbd0" + counts;
   const std::string disk = "8 0 sda" + counts;
   Write("proc/diskstats", slot + "253 0 dm-0" + counts + disk);
   Write("sys/block/nbd0/size", "0\n");
   Write("sys/block/dm-0/size", "0\n"); // created, without members yet
   EXPECT_EQ("", Disks()) << "no disk has a directory or a size yet";

   Write("sys/block/nbd0/size", "8\n");
   MakeDirectory("sys/block/dm-0/slaves/sda");
   Write("sys/block/dm-0/size", "8\n");
   EXPECT_EQ("nbd0:1/0/1/0/1/0 ", Disks());

   Write("sys/block/nbd0/size", "0\n");
   Write("sys/block/dm-0/size", "0\n");
   EXPECT_EQ("", Disks());
   Remove("sys/block/dm-0/slaves");
   Write("sys/block/dm-0/size", "8\n");
   EXPECT_EQ("dm-0:1/0/1/0/1/0 ", Disks()) << "recreated, without members";

   MakeDirectory("sys/block/sda");
   EXPECT_EQ("dm-0:1/0/1/0/1/0 ", Disks()) << "the kind of a device is looked up once";
   Write("proc/diskstats", slot);
   EXPECT_EQ("", Disks());
   Write("proc/diskstats", slot + disk);
   EXPECT_EQ("sda:1/0/1/0/1/0 ", Disks()) << "and again after it was gone";
}

TEST_F(LinuxHostTest, AnotherDeviceBehindANameIsLeftOutOnce)
{
   Write("proc/diskstats", "8 0 sda 1 0 1 0 0 0 0 0 0 0 0\n8 1 sdb 2 0 1 0 0 0 0 0 0 0 0\n");
   MakeDirectory("sys/block/sdb");
   Write("proc/net/dev", "eth0: 1 2 0 0 0 0 0 0 3 4\neth1: 5 6 0 0 0 0 0 0 7 8\n");
   MakeDirectory("sys/class/net/eth1/device");
   const std::tuple<const char*, const char*, const char*> readings[] = {
      {"7\n", "sda:1/0/1/0/1/0 sdb:2/0/1/0/2/0 ", "eth0:1/3/2/4 eth1:5/7/6/8 "},
      {"7\n", "sda:1/0/1/0/1/0 sdb:2/0/1/0/2/0 ", "eth0:1/3/2/4 eth1:5/7/6/8 "},
      {"8\n", "sdb:2/0/1/0/2/0 ", "eth0:none eth1:5/7/6/8 "},
      {"8\n", "sda:1/0/1/0/1/0 sdb:2/0/1/0/2/0 ", "eth0:1/3/2/4 eth1:5/7/6/8 "},
      {"", "sdb:2/0/1/0/2/0 ", "eth0:none eth1:5/7/6/8 "}, // just going
   };
   MakeDirectory("sys/class/net/eth0/device");
   for (const auto& [number, disks, nics] : readings) {
      Write({{"sys/block/sda/diskseq", number}, {"sys/class/net/eth0/ifindex", number}});
      EXPECT_EQ(disks, Disks()) << number;
      EXPECT_EQ(nics, Nics()) << number;
   }
}

constexpr char kThreeInterfaces[] = "lo: 9 9 0 0 0 0 0 0 9 9\n"
                                    "br0: 1 2 0 0 0 0 0 0 3 4\n"
                                    "eth0:4294967301 4294967295 0 0 0 0 0 0 8589934592 7\n";

TEST_F(LinuxHostTest, NicsAreThoseWithADeviceElseAllButTheLoopback)
{
   Write("proc/net/dev", kThreeInterfaces);
   MakeDirectory("sys/class/net/br0");
   MakeDirectory("sys/class/net/eth1/device"); // of another network namespace
   EXPECT_EQ("br0:1/3/2/4 eth0:4294967301/8589934592/4294967295/7 ", Nics());

   Write("proc/net/dev", "lo: 9 9 0 0 0 0 0 0 9 9\n");
   EXPECT_EQ("", Nics());
   MakeDirectory("sys/class/net/eth0/device");
   Write("proc/net/dev", kThreeInterfaces);
   EXPECT_EQ("eth0:4294967301/8589934592/4294967295/7 ", Nics())
      << "looked up again after it was gone";
}

TEST_F(LinuxHostTest, ConfiguredNicsAreCountedOnceInTheirOrder)
{
   _nics = {"eth7", "br0", "lo", "br0"};
   Write("proc/net/dev", kThreeInterfaces);
   EXPECT_EQ("eth7:none br0:1/3/2/4 lo:none ", Nics());
}

TEST_F(LinuxHostTest, CpuSpeedIsTheFirstThatTheKernelReports)
{
   const std::tuple<const char*, const char*, uint64_t> sources[] = {
      {"proc/cpuinfo", "processor : 2\ncpu MHz : 1500.25\n", 1500250000},
      {"sys/devices/system/cpu/cpu2/cpufreq/cpuinfo_max_freq", "3000000\n", 3000000000},
      {"sys/devices/system/cpu/cpu2/cpufreq/base_frequency", "2000000\n", 2000000000},
   };
   Write("sys/devices/system/cpu/online", "2,4-5\n");
   const std::string message = MessageOf<HostCtlException>([this] { Cpus()->GetCpus(); });
   EXPECT_TRUE(message.starts_with("Cannot find the CPU speed")) << message;
   EXPECT_NE(std::string::npos, message.find(Path("proc/cpuinfo"))) << message;
   for (const auto& [path, text, expectedHz] : sources) {
      Write(path, text);
      const std::vector<HostCtl::Hardware::Cpu*> cpus = Cpus()->GetCpus();
      EXPECT_EQ(3U, cpus.size());
      for (auto* cpu : cpus) {
         EXPECT_EQ(expectedHz, Owned(cpu)->GetSpeedHz()) << path;
      }
   }
   _host = nullptr;
   _cpuMhz = 1234; // a configured speed replaces all others
   for (auto* cpu : Cpus()->GetCpus()) {
      EXPECT_EQ(1234000000U, Owned(cpu)->GetSpeedHz());
   }
}

TEST_F(LinuxHostTest, AllCoresAreCountedHoweverMany)
{
   Write("proc/stat", "cpu0 1 1 1 1\ncpu3 1 1 1 1\n");
   EXPECT_EQ(2U, Cpus()->GetCoreCount()) << "counted in proc/stat";
   const std::pair<const char*, uint32_t> lists[] = {
      {"0-383\n", 384}, {"0-4294967296\n", 65535}, {"5\n", 1}, {"x\n", 2}};
   for (const auto& [list, cores] : lists) {
      Write("sys/devices/system/cpu/online", list);
      EXPECT_EQ(cores, Cpus()->GetCoreCount()) << list;
   }
}

TEST_F(LinuxHostTest, AnExceptionNamesTheFileThatIsMissingOrLacksItsFigure)
{
   // Some may be empty: there may be no disks, no NICs and no reserved memory.
   const std::tuple<const char*, bool, std::function<void()>> readings[] = {
      {"proc/stat", false, [this] { CpuTimes(); }},
      {"proc/stat", false, [this] { Cpus()->GetCoreCount(); }},
      {"proc/uptime", false, [this] { Resources()->GetUptimeUs(); }},
      {"proc/meminfo", false, [this] { Resources()->GetMemoryStats(); }},
      {"proc/meminfo", false, [this] { PhysicalBytes(); }},
      {"proc/meminfo", true, [this] { Resources()->GetCapacity(); }},
      {"proc/diskstats", true, [this] { Disks(); }},
      {"proc/net/dev", true, [this] { Nics(); }},
   };
   for (const auto& [path, mayBeEmpty, read] : readings) {
      _host = nullptr; // a new provider, which has not opened a file yet
      Remove(path);
      EXPECT_EQ("Cannot read " + Path(path) + ": No such file or directory",
                MessageOf<HostCtlException>(read));
      Write(path, "");
      const std::string message = MessageOf<HostCtlException>(read);
      EXPECT_TRUE(mayBeEmpty ? message.empty() : message.ends_with(" in " + Path(path)))
         << path << ": " << message;
   }
}

} // namespace
