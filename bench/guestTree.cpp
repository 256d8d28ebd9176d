#include "bench/guestTree.h"

#include "corvax/format.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace Bench {

namespace {

using Corvax::Format;
using LinuxHost::VmDisk;

constexpr char kGroups[] = "sys/fs/cgroup";
constexpr unsigned kFirstPid = 2000;

// Texts for the disks' and NICs' names, which an answer points to.
char kTarget0[] = "vda";
char kTarget1[] = "vdb";

/// A line for each name, with numbers of the usual length.
std::string MakeLines(const std::string& names)
{
   std::istringstream words(names);
   std::string lines;
   uint64_t value = 73000;
   for (std::string name; words >> name; value = value * 7 % 99999999977) {
      lines += Format("%1 %2\n", name, value);
   }
   return lines;
}

const std::string& GetCpuStat()
{
   static const std::string kText =
      MakeLines("usage_usec user_usec system_usec core_sched.force_idle_usec nr_periods "
                "nr_throttled throttled_usec nr_bursts burst_usec");
   return kText;
}

const std::string& GetMemoryStat()
{
   static const std::string kText = MakeLines(
      "anon file kernel kernel_stack pagetables sec_pagetables percpu sock vmalloc shmem zswap "
      "zswapped file_mapped file_dirty file_writeback swapcached anon_thp file_thp shmem_thp "
      "inactive_anon active_anon inactive_file active_file unevictable slab_reclaimable "
      "slab_unreclaimable slab workingset_refault_anon workingset_refault_file "
      "workingset_activate_anon workingset_activate_file workingset_restore_anon "
      "workingset_restore_file workingset_nodereclaim pgscan pgsteal pgscan_kswapd "
      "pgscan_direct pgsteal_kswapd pgsteal_direct pgfault pgmajfault pgrefill pgactivate "
      "pgdeactivate pglazyfree pglazyfreed zswpin zswpout thp_fault_alloc thp_collapse_alloc");
   return kText;
}

constexpr char kPressure[] = "some avg10=0.12 avg60=0.08 avg300=0.05 total=48237641\n"
                             "full avg10=0.00 avg60=0.00 avg300=0.00 total=31822077\n";

/// Fills an answer field by field.
class AnswerBuilder {
public:
   void AddNumbers(const std::string& group, const std::string& names)
   {
      std::istringstream words(names);
      for (std::string name; words >> name;) {
         virTypedParameter& parameter = Add(group + name, VIR_TYPED_PARAM_ULLONG);
         parameter.value.ul = _value;
         _value = _value * 7 % 99999999977;
      }
   }
   void AddState(const std::string& name, int value)
   {
      Add(name, VIR_TYPED_PARAM_INT).value.i = value;
   }
   /// Keeps the pointer.
   void AddText(const std::string& name, char* text)
   {
      Add(name, VIR_TYPED_PARAM_STRING).value.s = text;
   }
   std::vector<virTypedParameter> Take() { return std::move(_parameters); }

private:
   virTypedParameter& Add(const std::string& name, int type)
   {
      virTypedParameter& parameter = _parameters.emplace_back();
      parameter.type = type;
      name.copy(parameter.field, sizeof parameter.field - 1);
      return parameter;
   }

   std::vector<virTypedParameter> _parameters;
   uint64_t _value = 91000;
};

void AddVcpu(AnswerBuilder& answer, unsigned vcpu)
{
   const std::string group = Format("vcpu.%1.", vcpu);
   answer.AddState(group + "state", 1);
   answer.AddNumbers(group, "time wait delay");
   answer.AddNumbers(
      group, "exits.sum halt_exits.sum halt_successful_poll.sum halt_attempted_poll.sum "
             "halt_poll_invalid.sum halt_wakeup.sum halt_poll_success_ns.sum "
             "halt_poll_fail_ns.sum halt_wait_ns.sum io_exits.sum mmio_exits.sum "
             "signal_exits.sum irq_exits.sum irq_window.sum irq_injections.sum "
             "nmi_injections.sum req_event.sum request_irq_exits.sum fpu_reload.sum "
             "host_state_reload.sum hypercalls.sum insn_emulation.sum insn_emulation_fail.sum "
             "invlpg.sum l1d_flush.sum nested_run.sum pf_fixed.sum pf_guest.sum tlb_flush.sum "
             "preemption_reported.sum preemption_other.sum guest_mode.cur");
}

void AddDisk(AnswerBuilder& answer, unsigned disk, char* target)
{
   const std::string group = Format("block.%1.", disk);
   answer.AddText(group + "name", target);
   answer.AddText(group + "path", target);
   answer.AddNumbers(group, "backingIndex rd.reqs rd.bytes rd.times wr.reqs wr.bytes wr.times "
                            "fl.reqs fl.times allocation capacity physical");
}

std::vector<virTypedParameter> MakeAnswer(char* tap, unsigned parts)
{
   AnswerBuilder answer;
   answer.AddState("state.state", VIR_DOMAIN_RUNNING);
   answer.AddState("state.reason", 1);
   if (parts & LinuxHost::VM_BASICS) {
      answer.AddNumbers("cpu.", "time user system cache.monitor.count haltpoll.success.time "
                                "haltpoll.fail.time");
      answer.AddNumbers("net.", "count");
      answer.AddText("net.0.name", tap);
      answer.AddNumbers("net.0.",
                        "rx.bytes rx.pkts rx.errs rx.drop tx.bytes tx.pkts tx.errs tx.drop");
   }
   if (parts & LinuxHost::VM_VCPUS) {
      answer.AddNumbers("vcpu.", "current maximum");
      for (unsigned vcpu = 0; vcpu < kGuestVcpus; ++vcpu) {
         AddVcpu(answer, vcpu);
      }
   }
   if (parts & LinuxHost::VM_MONITOR) {
      answer.AddNumbers("balloon.", "current maximum swap_in swap_out major_fault minor_fault "
                                    "unused available usable last-update disk_caches "
                                    "hugetlb_pgalloc hugetlb_pgfail rss");
      answer.AddNumbers("block.", "count");
      AddDisk(answer, 0, kTarget0);
      AddDisk(answer, 1, kTarget1);
   }
   return answer.Take();
}

} // namespace

GuestTree::GuestTree(unsigned guests)
   : _root(_directory.GetPath().substr(0, _directory.GetPath().size() - 1))
{
   WriteHost();
   _descriptions.reserve(guests);
   for (unsigned number = 0; number < guests; ++number) {
      AddGuest(number);
   }
}

std::span<const virTypedParameter> GuestTree::GetAnswer(size_t guest, unsigned parts)
{
   const std::lock_guard guard(_answersMutex);
   auto& answers = _answers[parts];
   if (answers.empty()) {
      for (LinuxHost::VmDescription& description : _descriptions) {
         answers.push_back(MakeAnswer(description.cards.front().tap.data(), parts));
      }
   }
   return answers[guest];
}

void GuestTree::Write(const std::string& path, const std::string& text) const
{
   const std::filesystem::path file(_root + "/" + path);
   std::filesystem::create_directories(file.parent_path());
   std::ofstream(file, std::ios::binary) << text;
}

void GuestTree::WriteHost() const
{
   Write("proc/stat", "cpu  100 0 100 1000 5 0 0 0 0 0\ncpu0 50 0 50 500 2 0 0 0 0 0\n"
                      "cpu1 50 0 50 500 3 0 0 0 0 0\n");
   Write("proc/uptime", "1000000.00 1900000.00\n");
   Write("proc/meminfo", "MemTotal: 67108864 kB\nMemFree: 1048576 kB\n");
   Write("proc/cpuinfo", "cpu MHz : 2500.000\n");
   Write("proc/pressure/cpu", kPressure);
   Write("proc/vmstat", "pswpin 16\npswpout 32\n");
   Write("proc/net/dev", "a\nb\n  eth0: 1 2 0 0 0 0 0 0 3 4 0 0 0 0 0 0\n");
   Write("proc/diskstats", "8 0 sda 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n");
   Write("sys/block/sda/queue/hw_sector_size", "512\n");
   Write("sys/devices/system/cpu/online", "0-1\n");
   Write(std::string(kGroups) + "/cgroup.controllers", "cpuset cpu io memory pids\n");
   for (const char* const group : {"", "/machine.slice", "/system.slice", "/user.slice"}) {
      Write(std::string(kGroups) + group + "/cpu.stat", GetCpuStat());
      Write(std::string(kGroups) + group + "/cpu.pressure", kPressure);
      Write(std::string(kGroups) + group + "/memory.stat", GetMemoryStat());
      Write(std::string(kGroups) + group + "/memory.swap.current", "0\n");
   }
}

void GuestTree::AddGuest(unsigned number)
{
   const std::string pid = std::to_string(kFirstPid + number);
   const std::string digits = std::to_string(number);
   const std::string scope =
      Format("/machine.slice/machine-qemu\\x2d%1\\x2dguest%2.scope", number + 1, number);
   LinuxHost::VmDescription guest;
   guest.id = "6a1f0000-0000-4000-8000-" + std::string(12 - digits.size(), '0') + digits;
   guest.name = "guest" + digits;
   guest.powerState = Quen::Vm::PowerState::POWERED_ON;
   guest.memoryMb = 2048;
   guest.partition = "/machine.slice";
   guest.cards.push_back({4000, true, true, "vnet" + digits});
   guest.disks.push_back({kTarget0, VmDisk::Image::FILE, "/images/" + digits});
   guest.disks.push_back({kTarget1, VmDisk::Image::FILE, "/images/" + digits + "b"});
   _descriptions.push_back(guest);

   WriteGroups(scope, number % 4 == 0);
   const std::string process = "proc/" + pid + "/";
   using namespace std::string_literals;
   Write(process + "cmdline", "qemu-system-x86_64\0-uuid\0"s + guest.id + "\0"s);
   Write(process + "cgroup", "0::" + scope + "/libvirt/emulator\n");
   Write(process + "stat", pid + " (qemu-system-x86) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 4 0 9999 "
                                 "0 0\n");
   Write(process + "status", "Name:\tqemu-system-x86\nVmRSS:\t 2097152 kB\n"
                             "HugetlbPages:\t       0 kB\n");
   Write(process + "ksm_merging_pages", "120\n");
   Write(process + "ksm_stat", "ksm_rmap_items 5\nksm_zero_pages 7\nksm_merging_pages 120\n"
                               "ksm_process_profit 9\n");
   Write(std::string(kGroups) + scope + "/libvirt/emulator/cgroup.procs", pid + "\n");
}

void GuestTree::WriteGroups(const std::string& scope, bool hasQuota) const
{
   const std::string path = kGroups + scope;
   for (const char* const group : {"", "/libvirt", "/libvirt/emulator"}) {
      Write(path + group + "/cpu.stat", GetCpuStat());
      Write(path + group + "/cpu.max", "max 100000\n");
      Write(path + group + "/cpu.pressure", kPressure);
      Write(path + group + "/memory.stat", GetMemoryStat());
      Write(path + group + "/memory.swap.current", "4096\n");
   }
   for (unsigned vcpu = 0; vcpu < kGuestVcpus; ++vcpu) {
      Write(path + Format("/libvirt/vcpu%1/cpu.stat", vcpu), GetCpuStat());
      Write(path + Format("/libvirt/vcpu%1/cpu.max", vcpu),
            hasQuota ? "50000 100000\n" : "max 100000\n");
      Write(path + Format("/libvirt/vcpu%1/cpu.pressure", vcpu), kPressure);
   }
}

} // namespace Bench
