#include "linuxHost/linuxHostProvider.h"

#include "linuxHost/kernelFile.h"
#include "linuxHost/procParsers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

namespace {

namespace fs = std::filesystem;
using Corvax::Format;
using HostCtl::Lib::HostCtlException;

class FakeLogger : public Corvax::Logger, public Corvax::ObjectImpl {
public:
   bool IsEnabled(int) const override { return true; }
   void SetLevel(const std::string&) override {}
   void Write(int level, const std::string& text) override
   {
      lines.push_back(Format("%1 %2", level, text));
   }
   std::vector<std::string> lines;
};

std::string ReadText(const std::string& path)
{
   std::ifstream file(path);
   return {std::istreambuf_iterator<char>(file), {}};
}

/// A tree of kernel files in a directory of its own, and a provider that reads it.
class LinuxHostTest : public testing::Test {
protected:
   LinuxHostTest()
   {
      _root = testing::TempDir() + "linuxHostXXXXXX";
      EXPECT_NE(nullptr, mkdtemp(_root.data()));
      Write("proc/stat", "cpu0 100 0 0 200\n");
      Write("proc/uptime", "12.50 1.00\n");
      Write("proc/meminfo", "MemTotal: 1000 kB\nMemFree: 400 kB\n");
      Write("proc/diskstats", "");
      Write("proc/net/dev", "");
   }
   ~LinuxHostTest() override { fs::remove_all(_root); }

   /// Writes in place, as a kernel file changes under a descriptor that stays open.
   void Write(const std::string& path, const std::string& text)
   {
      fs::create_directories(fs::path(Path(path)).parent_path());
      std::ofstream(Path(path)) << text;
   }
   void MakeDirectory(const std::string& path) { fs::create_directories(Path(path)); }
   void Remove(const std::string& path) { fs::remove_all(Path(path)); }
   std::string Path(const std::string& path) const { return _root + "/" + path; }

   HostCtl::Host& Host()
   {
      if (!_host) {
         _provider = LinuxHost::NewLinuxHostProvider({_root, _nics}, _logger.Get());
         _host.reset(_provider->GetHost());
      }
      return *_host;
   }
   std::unique_ptr<HostCtl::Resource::ResourceInfo> Resources()
   {
      return std::unique_ptr<HostCtl::Resource::ResourceInfo>(Host().GetResourceInfo());
   }
   std::unique_ptr<HostCtl::Hardware::CpuInfo> Cpus()
   {
      const std::unique_ptr<HostCtl::Hardware::HardwareInfo> info(Host().GetHardwareInfo());
      return std::unique_ptr<HostCtl::Hardware::CpuInfo>(info->GetCpuInfo());
   }
   uint64_t PhysicalBytes()
   {
      const std::unique_ptr<HostCtl::Hardware::HardwareInfo> info(Host().GetHardwareInfo());
      return std::unique_ptr<HostCtl::Hardware::MemoryInfo>(info->GetMemoryInfo())
         ->GetPhysicalBytes();
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
      const std::unique_ptr<HostCtl::Storage::StorageInfo> info(Host().GetStorageInfo());
      std::string text;
      for (auto* lun : info->GetDiskLuns()) {
         const std::unique_ptr<HostCtl::Storage::DiskLun> owned(lun);
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
      const std::unique_ptr<HostCtl::Network::NetworkInfo> info(Host().GetNetworkInfo());
      std::string text;
      for (auto* nic : info->GetPhysicalNics()) {
         const std::unique_ptr<HostCtl::Network::PhysicalNic> owned(nic);
         const std::unique_ptr<HostCtl::Network::Port> port(nic->GetUplinkPort());
         const auto figures = port ? port->GetStatistics() : HostCtl::Network::PortStatistics{};
         text += nic->GetName() + (port ? Format(":%1/%2/%3/%4 ", figures.bytesReceived,
                                                 figures.bytesSent, figures.packetsReceived,
                                                 figures.packetsSent)
                                        : ":none ");
      }
      return text;
   }

   std::string _root;
   std::vector<std::string> _nics;
   Corvax::Ref<FakeLogger> _logger = Corvax::MakeRef<FakeLogger>();
   std::unique_ptr<HostCtl::HostProvider> _provider;
   std::unique_ptr<HostCtl::Host> _host;
};

TEST_F(LinuxHostTest, CpuTimesNeverStepBackAndAnOfflineCpuKeepsItsPlace)
{
   // Fields: user nice system idle iowait; a tick is 10 ms wherever the tests run.
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   const std::pair<const char*, const char*> readings[] = {
      {"cpu0 1 0 1 5 5\ncpu1 2 0 0 7 0\ncpu2 3 0 0 8 0\n", "20000/100000 20000/70000 30000/80000 "},
      {"cpu0 1 0 1 5 4\ncpu1 1 0 0 9 0\ncpu2 3 0 0 8 0\n", "20000/100000 20000/90000 30000/80000 "},
      {"cpu0 1 0 2 6 6\ncpu2 4 0 0 8 0\n", "30000/120000 20000/90000 40000/80000 "},
      {"cpu0 1 0 2 6 6\n", "30000/120000 20000/90000 40000/80000 "},
      {"cpu0 1 0 2 6 6\ncpu4 1 0 0 1 0\n",
       "30000/120000 20000/90000 40000/80000 0/0 10000/10000 "},
   };
   for (const auto& [text, expected] : readings) {
      Write("proc/stat", text);
      EXPECT_EQ(expected, CpuTimes()) << text;
   }
}

TEST_F(LinuxHostTest, MemoryFiguresComeFromTheirFields)
{
   // Each field is a power of two of its own, so that a sum shows what went into it.
   Write("proc/meminfo", "MemTotal: 1048576 kB\nMemFree: 1 kB\nMemAvailable: 2 kB\nActive: 4 kB\n"
                         "SwapTotal: 24 kB\nSwapFree: 8 kB\nAnonPages: 32 kB\nShmem: 64 kB\n"
                         "Slab: 128 kB\nSReclaimable: 256 kB\nKernelStack: 512 kB\n"
                         "PageTables: 1024 kB\nSecPageTables: 2048 kB\nVmallocUsed: 4096 kB\n"
                         "Percpu: 8192 kB\nHugetlb: 16385 kB\n");
   Write("proc/vmstat", "pswpin 16\npswpout 32\n");
   Write("sys/kernel/mm/ksm/pages_shared", "1\n");
   Write("sys/kernel/mm/ksm/pages_sharing", "2\n");
   Write("sys/kernel/mm/ksm/ksm_zero_pages", "8\n");
   const uint64_t pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
   const auto stats = Resources()->GetMemoryStats();
   const std::pair<uint64_t, uint64_t> figures[] = {
      {stats.freeKb, 1}, {stats.unreservedKb, 2}, {stats.activeKb, 4}, {stats.swapUsedKb, 16},
      {stats.grantedKb, 32 + 64}, {stats.heapKb, 128}, {stats.heapFreeKb, 256},
      {stats.sysUsageKb, 128 + 1024 + 2048 + 4096 + 8192}, {stats.swapInKb, 16 * pageKb},
      {stats.swapOutKb, 32 * pageKb}, {stats.sharedCommonKb, pageKb}, {stats.sharedKb, 3 * pageKb},
      {stats.zeroKb, 8 * pageKb}, {Resources()->GetCapacity().reservedMemoryMb, 16},
      {PhysicalBytes(), 1ULL << 30}};
   for (size_t i = 0; i < std::size(figures); ++i) {
      EXPECT_EQ(figures[i].second, figures[i].first) << "figure " << i;
   }
}

TEST_F(LinuxHostTest, WhatTheKernelDoesNotKeepIsZero)
{
   Write("proc/meminfo", "MemFree: 400 kB\nSwapFree: 9 kB\nKernelStack: 7 kB\n");
   const auto stats = Resources()->GetMemoryStats();
   EXPECT_EQ(400U, stats.freeKb);
   EXPECT_EQ(7U, stats.sysUsageKb); // stacks count by themselves where VmallocUsed is not filled in
   EXPECT_EQ(0U, stats.sharedKb + stats.zeroKb + stats.swapInKb + stats.swapOutKb +
                    stats.grantedKb + stats.swapUsedKb);
}

TEST_F(LinuxHostTest, OnlyWholeDisksThatHoldTheirOwnDataAreCounted)
{
   const std::string counts = " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n";
   const std::string none = " 0 0 0 0 0 0 0 0 0 0 0\n";
   Write("proc/diskstats", "8 0 sda" + counts + "8 1 sda1" + counts + "7 0 loop0" + none +
                              "7 1 loop1" + counts + "1 0 ram0" + none + "1 1 ram1" + counts +
                              "253 0 dm-0" + counts + "104 0 cciss/c0d0" + counts + "8 16 sdb" +
                              none);
   Write("sys/block/sda/device/iotmo_cnt", "0x1f\n");
   MakeDirectory("sys/block/sda/slaves");
   Write("sys/block/loop0/size", "0\n");
   Write("sys/block/loop1/size", "8\n");
   Write("sys/block/ram0/size", "8\n");
   Write("sys/block/ram1/size", "8\n");
   Write("sys/block/dm-0/size", "8\n");
   MakeDirectory("sys/block/dm-0/slaves/sda");
   MakeDirectory("sys/block/cciss!c0d0");
   MakeDirectory("sys/block/sdb");
   const std::string figures = ":1/5/3/7/34/0 ";
   EXPECT_EQ("sda:1/5/3/7/34/31 loop1" + figures + "ram1" + figures + "cciss/c0d0" + figures +
                "sdb:0/0/0/0/0/0 ",
             Disks());
}

TEST_F(LinuxHostTest, DisksAreFollowedWhileTheyComeAndGo)
{
   const std::string counts = " 1 0 1 0 0 0 0 0 0 0 0\n";
   const std::string loop = "7 0 loop0" + counts;
   const std::string disk = "8 0 sda" + counts;
   Write("proc/diskstats", loop + "253 0 dm-0" + counts + disk);
   Write("sys/block/loop0/size", "0\n");
   Write("sys/block/dm-0/size", "0\n"); // created, and given its members only later
   EXPECT_EQ("", Disks()) << "no disk has a directory or a size yet";

   Write("sys/block/loop0/size", "8\n");
   MakeDirectory("sys/block/dm-0/slaves/sda");
   Write("sys/block/dm-0/size", "8\n");
   EXPECT_EQ("loop0:1/0/1/0/1/0 ", Disks());

   Write("sys/block/loop0/size", "0\n");
   Write("proc/diskstats", loop);
   EXPECT_EQ("", Disks());

   MakeDirectory("sys/block/sda");
   Write("proc/diskstats", loop + disk);
   EXPECT_EQ("sda:1/0/1/0/1/0 ", Disks()) << "the name is looked up anew after it was gone";
}

constexpr char kThreeInterfaces[] = "lo: 9 9 0 0 0 0 0 0 9 9\n"
                                    "br0: 1 2 0 0 0 0 0 0 3 4\n"
                                    "eth0:4294967301 4294967295 0 0 0 0 0 0 8589934592 7\n";

TEST_F(LinuxHostTest, NicsWithADeviceAreCountedInThirtyTwoBits)
{
   Write("proc/net/dev", kThreeInterfaces);
   MakeDirectory("sys/class/net/eth0/device");
   MakeDirectory("sys/class/net/br0");
   MakeDirectory("sys/class/net/eth1/device"); // of another network namespace
   EXPECT_EQ("eth0:5/0/4294967295/7 ", Nics());
}

TEST_F(LinuxHostTest, WithoutPhysicalNicsAllButTheLoopbackAreCounted)
{
   Write("proc/net/dev", kThreeInterfaces);
   EXPECT_EQ("br0:1/3/2/4 eth0:5/0/4294967295/7 ", Nics());

   Write("proc/net/dev", "lo: 9 9 0 0 0 0 0 0 9 9\nbr0: 1 2 0 0 0 0 0 0 3 4\n");
   EXPECT_EQ("br0:1/3/2/4 ", Nics());
   MakeDirectory("sys/class/net/eth0/device");
   Write("proc/net/dev", kThreeInterfaces);
   EXPECT_EQ("eth0:5/0/4294967295/7 ", Nics()) << "the name is looked up anew after it was gone";
}

TEST_F(LinuxHostTest, ConfiguredNicsAreCountedOnceInTheirOrder)
{
   _nics = {"eth7", "br0", "lo", "br0"};
   Write("proc/net/dev", kThreeInterfaces);
   MakeDirectory("sys/class/net/eth0/device");
   EXPECT_EQ("eth7:none br0:1/3/2/4 lo:none ", Nics());
}

TEST_F(LinuxHostTest, CpuSpeedIsTheFirstOneTold)
{
   const std::pair<const char*, const char*> sources[] = {
      {"proc/cpuinfo", "processor : 2\ncpu MHz : 1500.25\n"},
      {"sys/devices/system/cpu/cpu2/cpufreq/cpuinfo_max_freq", "3000000\n"},
      {"sys/devices/system/cpu/cpu2/cpufreq/base_frequency", "2000000\n"},
   };
   const uint64_t expectedHz[] = {1500250000, 3000000000, 2000000000};
   Write("sys/devices/system/cpu/online", "2,4-5\n");
   try {
      Cpus()->GetCpus();
      ADD_FAILURE() << "a speed from nowhere";
   } catch (const HostCtlException& failure) {
      EXPECT_NE(std::string::npos, failure.GetMessage().find("Cannot find the CPU speed"));
      EXPECT_NE(std::string::npos, failure.GetMessage().find(Path("proc/cpuinfo")));
   }
   for (size_t i = 0; i < std::size(sources); ++i) {
      Write(sources[i].first, sources[i].second);
      std::vector<HostCtl::Hardware::Cpu*> cpus = Cpus()->GetCpus();
      EXPECT_EQ(3U, cpus.size());
      for (auto* cpu : cpus) {
         const std::unique_ptr<HostCtl::Hardware::Cpu> owned(cpu);
         EXPECT_EQ(expectedHz[i], cpu->GetSpeedHz()) << sources[i].first;
      }
   }
}

TEST_F(LinuxHostTest, CoresAreCountedUpToTheLimitWithOneWarning)
{
   Write("proc/stat", "cpu0 1 1 1 1\ncpu3 1 1 1 1\n");
   EXPECT_EQ(2U, Cpus()->GetCoreCount()) << "counted in proc/stat";
   const std::pair<const char*, uint32_t> lists[] = {
      {"0-254\n", 255}, {"0-255\n", 255}, {"0-4294967296\n", 255}, {"5\n", 1}, {"x\n", 2}};
   for (const auto& [list, cores] : lists) {
      Write("sys/devices/system/cpu/online", list);
      EXPECT_EQ(cores, Cpus()->GetCoreCount()) << list;
   }
   EXPECT_EQ(std::vector<std::string>{"4 The host has 256 CPUs, only 255 are counted"},
             _logger->lines);
}

TEST_F(LinuxHostTest, FilesMissingOrWithoutTheirFigureAreNamed)
{
   const std::pair<const char*, std::function<void()>> readings[] = {
      {"proc/stat", [this] { CpuTimes(); }},
      {"proc/stat", [this] { Cpus()->GetCoreCount(); }},
      {"proc/uptime", [this] { Resources()->GetUptimeUs(); }},
      {"proc/meminfo", [this] { Resources()->GetMemoryStats(); }},
      {"proc/meminfo", [this] { PhysicalBytes(); }},
      {"proc/meminfo", [this] { Resources()->GetCapacity(); }},
      {"proc/diskstats", [this] { Disks(); }},
      {"proc/net/dev", [this] { Nics(); }},
   };
   const auto messageOf = [](const auto& read) -> std::string {
      try {
         read();
      } catch (const HostCtlException& failure) {
         return failure.GetMessage();
      }
      return "";
   };
   for (size_t i = 0; i < std::size(readings); ++i) {
      const auto& [path, read] = readings[i];
      const std::string text = ReadText(Path(path));
      EXPECT_NO_THROW(read()) << path;
      Remove(path);
      _host = nullptr;
      EXPECT_EQ("Cannot read " + Path(path) + ": No such file or directory", messageOf(read));
      Write(path, "");
      const std::string message = messageOf(read);
      if (i < 5) { // an empty list of disks or NICs, and no memory set aside, are figures too
         EXPECT_TRUE(message.starts_with("Cannot find ") && message.ends_with(Path(path)))
            << path << ": " << message;
      } else {
         EXPECT_EQ("", message);
      }
      Write(path, text);
      EXPECT_NO_THROW(read()) << path;
   }
}

TEST_F(LinuxHostTest, FileOfADeviceThatCameBackIsReadAnew)
{
   // The file of a process serves: like a device's, it fails once its owner is gone.
   const pid_t child = fork();
   if (child == 0) {
      pause();
      _exit(0);
   }
   fs::create_symlink(Format("/proc/%1/stat", child), Path("stat"));
   LinuxHost::KernelFile file(Path("stat"));
   EXPECT_TRUE(file.Read().starts_with(std::to_string(child) + " "));
   kill(child, SIGKILL);
   waitpid(child, nullptr, 0);
   EXPECT_FALSE(file.ReadIfPresent());
   EXPECT_THROW(file.Read(), HostCtlException);
   Remove("stat");
   Write("stat", std::string(5000, 'x')); // also longer than the first buffer
   EXPECT_EQ(std::string(5000, 'x'), file.Read());
   Write("stat", "short");
   EXPECT_EQ("short", file.Read());
}

TEST_F(LinuxHostTest, FiguresOfThisMachineAgreeWithItsFiles)
{
   _root.swap(_rootOfMachine);
   const auto memory = LinuxHost::ParseMemInfo(ReadText("/proc/meminfo"));
}

} // namespace
