#include "corvax/format.h"
#include "corvax/sharedLibrary.h"
#include "hostctl/lib.h"
#include "linuxHost/libvirt/domainStats.h"
#include "linuxHost/libvirt/domainXml.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace {

using Corvax::Format;

std::string Show(const LinuxHost::VmDescription& vm)
{
   std::string text = Format("%1 %2 %3MB %4", vm.id, vm.name, vm.memoryMb, vm.partition);
   for (const auto& card : vm.cards) {
      text += Format(" %1:%2%3%4", card.key, card.onNetwork ? "net," : "", card.linkUp ? "up," : "",
                     card.tap);
   }
   for (const auto& disk : vm.disks) {
      text += Format(" %1:%2,%3", disk.target, disk.image, disk.path);
   }
   return text;
}

/// The description of a domain with these elements, without the part that is the same in all.
std::string Parse(std::string_view more)
{
   const std::string start = "u n ";
   const std::string text = Show(LinuxHost::ParseDomainXml(
      Format("<?xml version='1.0'?><domain><name>n</name><uuid> U\n</uuid>%1</domain>", more)));
   return text.starts_with(start) ? text.substr(start.size()) : text;
}

/// Name, text and expected result.
using Case = std::tuple<const char*, const char*, const char*>;

const Case kXmlCases[] = {
   {"no memory, no devices", "", "0MB "},
   {"memory without a unit is in KiB", "<memory>2097151</memory>", "2047MB "},
   {"bytes", "<memory unit='bytes'>1048575</memory>", "0MB "},
   {"powers of 1000", "<memory unit='GB'> 2 </memory>", "1907MB "},
   {"a letter alone", "<memory unit='T'>1</memory>", "1048576MB "},
   {"unit in small letters", "<memory unit='mib'>7</memory>", "7MB "},
   {"memory saturates", "<memory unit='GiB'>99999999999999999999</memory>", "17592186044415MB "},
   {"negative memory", "<memory unit='KiB'>-5</memory>", "0MB "},
   {"unknown unit", "<memory unit='pages'>4096</memory>", "0MB "},
   {"partition", "<resource><partition>/machine/a &amp; b</partition></resource>",
    "0MB /machine/a & b"},
   {"a NIC's key is its alias's, else the next free one",
    "<devices><interface type='hostdev'><alias name='hostdev0'/></interface>"
    "<interface type='bridge'><target dev='vnet7'/><alias name='net0'/></interface>"
    "<interface type='ethernet'><link state='down'/><alias name='net5'/></interface></devices>",
    "0MB  4001:up, 4000:net,up,vnet7 4005:net,"},
   {"aliases that are not numbers of libvirt's",
    "<devices><interface type='network'><alias name='net'/></interface>"
    "<interface type='direct'><alias name='net-1'/></interface>"
    "<interface type='user'><alias name='net2147480000'/></interface>"
    "<interface type='vhostuser'/><interface type='vdpa'><alias "
    "name='ua-net9'/></interface></devices>",
    "0MB  4000:net,up, 4001:net,up, 4002:up, 4003:net,up, 4004:up,"},
   {"disks by the kind of their image, without empty drives",
    "<devices><disk type='file'><source file='/a'/><target dev='vda'/></disk>"
    "<disk type='block'><source dev='/dev/b'/><target dev='vdb'/></disk>"
    "<disk type='network'><source name='c'/><target dev='vdc'/></disk>"
    "<disk type='volume'><source volume='d'/><target dev='vdd'/></disk>"
    "<disk type='file'><target dev='vde'/></disk>"
    "<disk type='file'><source file='/nameless'/></disk>"
    "<disk device='cdrom'><source startupPolicy='optional'/><target dev='hda'/></disk>"
    "<disk type='block' device='floppy'><target dev='fda'/></disk>"
    "<disk device='cdrom'><source file='/i.iso'/><target dev='hdc'/></disk></devices>",
    "0MB  vda:0,/a vdb:1,/dev/b vdc:2, vdd:3, vde:3, hdc:0,/i.iso"},
   {"a base image is not the image of the disk",
    "<devices><disk type='file'><backingStore><source file='/base'/></backingStore>"
    "<source file='/top'/><target dev='vda'/></disk></devices>",
    "0MB  vda:0,/top"},
};

TEST(DomainXmlTest, TextsYieldTheseDescriptions)
{
   for (const auto& [name, xml, expected] : kXmlCases) {
      EXPECT_EQ(expected, Parse(xml)) << name;
   }
}

TEST(DomainXmlTest, TextsThatAreNotADomainAreRefused)
{
   for (const std::string_view xml :
        {"", "nonsense", "<domain><uuid>u</uuid>", "<domain><name>n</name></domain>",
         "<domain><uuid> </uuid></domain>", "<network><uuid>u</uuid></network>"}) {
      EXPECT_THROW(LinuxHost::ParseDomainXml(xml), HostCtl::Lib::HostCtlException) << xml;
   }
}

constexpr unsigned kAllParts = LinuxHost::VM_BASICS | LinuxHost::VM_VCPUS | LinuxHost::VM_MONITOR;
const std::vector<LinuxHost::VmCardFigures> kNoCards;
const std::vector<LinuxHost::VmDiskFigures> kNoDisks;

/// A record like libvirt's.
class Record {
public:
   ~Record() { ::virTypedParamsFree(_parameters, _count); }
   /// "FIELD=VALUE ...", numbers as libvirt's largest type and everything else as a text.
   explicit Record(std::string_view fields = "")
   {
      EXPECT_EQ(0, ::virInitialize()); // libvirt cannot store errors before that
      for (size_t end = 0; !fields.empty();
           fields.remove_prefix(std::min(fields.size(), end + 1))) {
         end = std::min(fields.find(' '), fields.size());
         const std::string field(fields.substr(0, fields.find('=')));
         const std::string value(fields.substr(field.size() + 1, end - field.size() - 1));
         if (value.find_first_not_of("0123456789") == std::string::npos) {
            Add(::virTypedParamsAddULLong, field.c_str(), std::stoull(value));
         } else {
            Add(::virTypedParamsAddString, field.c_str(), value.c_str());
         }
      }
   }

   template <class Function, class Value>
   Record& Add(Function function, const char* field, Value value)
   {
      EXPECT_EQ(0, function(&_parameters, &_count, &_capacity, field, value)) << field;
      return *this;
   }

   std::string Show() const
   {
      const auto vm =
         LinuxHost::ParseDomainStats({_parameters, static_cast<size_t>(_count)}, kAllParts);
      if (!vm) {
         return "none";
      }
      std::string text = vm->basics ? Format("%1", vm->basics->usedUs) : "-";
      if (vm->monitor) {
         const LinuxHost::VmMemory& memory = vm->monitor->memory;
         text += Format(" %1/%2/%3 @%4", memory.balloonCurrentKb, memory.balloonMaximumKb,
                        memory.rssKb, memory.guestReportSec);
         if (memory.guestAvailableKb && memory.guestUsableKb) {
            text += Format(" %1-%2", *memory.guestAvailableKb, *memory.guestUsableKb);
         }
      }
      for (const auto& vcpu : *vm->vcpus) {
         text += Format(" %1/%2/%3", vcpu.usedUs, vcpu.waitUs, vcpu.readyUs);
      }
      for (const auto& card : vm->basics ? vm->basics->cards : kNoCards) {
         text += Format(" %1:%2/%3/%4/%5", card.tap, card.bytesReceived, card.bytesSent,
                        card.packetsReceived, card.packetsSent);
      }
      for (const auto& disk : vm->monitor ? vm->monitor->disks : kNoDisks) {
         text += Format(" %1:%2/%3/%4/%5/%6", disk.target, disk.bytesRead, disk.bytesWritten,
                        disk.readOperations, disk.writeOperations, disk.flushOperations);
      }
      return text;
   }

private:
   virTypedParameterPtr _parameters = nullptr;
   int _count = 0;
   int _capacity = 0;
};

const Case kStatCases[] = {
   {"empty", "", "none"},
   {"shut off, with the daemon's own time", "state.state=5 cpu.time=5180000000 balloon.rss=1",
    "none"},
   {"paused", "state.state=3 balloon.rss=1", "none"},
   {"made without the monitor",
    "state.state=1 cpu.time=9 balloon.current=5 balloon.maximum=6 vcpu.0.time=7 net.0.name=t "
    "net.0.rx.bytes=90 block.count=1 block.0.name=vda block.0.backingIndex=1",
    "0 0/0/0 t:90/0/0/0"},
   {"neither balloon device nor disk", "state.state=1 cpu.time=1999 balloon.rss=42984",
    "1 0/0/42984 @0"},
   {"units and directions",
    "state.state=1 cpu.time=7000999 cpu.user=1 balloon.current=2 balloon.maximum=3 balloon.rss=4 "
    "balloon.available=9 balloon.usable=8 balloon.last-update=5 vcpu.current=1 vcpu.0.state=1 "
    "vcpu.0.time=6000 vcpu.0.wait=7000 "
    "vcpu.0.delay=8000 vcpu.0.halt_wait_ns.sum=9000 net.count=1 net.0.name=t net.0.rx.bytes=9 "
    "net.0.rx.pkts=10 "
    "net.0.rx.drop=77 net.0.tx.bytes=11 net.0.tx.pkts=12 block.count=1 block.0.name=vda "
    "block.0.path=/p block.0.rd.reqs=13 block.0.rd.bytes=14 block.0.rd.times=77 block.0.wr.reqs=15 "
    "block.0.wr.bytes=16 block.0.fl.reqs=17 block.0.fl.times=77",
    "7000 2/3/4 @5 9-8 6/9/8 t:9/11/10/12 vda:14/16/13/15/17"},
   {"a virtual CPU that is off has zeroes",
    "state.state=1 balloon.rss=1 vcpu.2.time=3000 vcpu.0.time=1000 vcpu.16384.time=5000 "
    "vcpu.99999999999.time=1 vcpu.x.time=1 vcpu.1=1",
    "- 0/0/1 @0 1/0/0 0/0/0 3/0/0"},
   {"a NIC without a name is left out",
    "state.state=1 cpu.time=1 balloon.rss=1 net.count=2 net.1.name=b net.1.rx.bytes=3 "
    "net.0.rx.bytes=1",
    "0 0/0/1 @0 b:3/0/0/0"},
   {"base images are not counted again",
    "state.state=1 balloon.rss=1 block.0.name=vda block.0.backingIndex=1 block.0.rd.bytes=10 "
    "block.1.name=vda block.1.backingIndex=3 block.1.rd.bytes=10 block.10.name=vdc "
    "block.10.wr.bytes=5 block.2.name=vdb block.2.rd.bytes=7",
    "- 0/0/1 @0 vda:10/0/0/0/0 vdb:7/0/0/0/0 vdc:0/5/0/0/0"},
   {"a disk without counters", "state.state=1 balloon.rss=1 block.0.name=vda block.0.path=/p",
    "- 0/0/1 @0"},
   {"a text is not a number", "state.state=1 balloon.rss=1 cpu.time=soon net.0.name=7",
    "- 0/0/1 @0"},
};

TEST(DomainStatsTest, RecordsYieldTheseFigures)
{
   for (const auto& [name, fields, expected] : kStatCases) {
      EXPECT_EQ(expected, Record(fields).Show()) << name;
   }
}

TEST(DomainStatsTest, AllIntegerTypesAreAcceptedAndNegativeOnesAreZero)
{
   Record record;
   record.Add(::virTypedParamsAddInt, "state.state", 1)
      .Add(::virTypedParamsAddUInt, "balloon.rss", UINT_MAX)
      .Add(::virTypedParamsAddLLong, "balloon.current", INT64_MAX)
      .Add(::virTypedParamsAddLLong, "cpu.time", INT64_MIN)
      .Add(::virTypedParamsAddInt, "balloon.maximum", -1)
      .Add(::virTypedParamsAddDouble, "balloon.last-update", 1.5);
   EXPECT_EQ("0 9223372036854775807/0/4294967295 @0", record.Show());
}

// libvirt's own test driver needs no daemon; it lists domains but has no statistics.
TEST(HypervisorModuleTest, ConnectsAndListsTheDomains)
{
   const Corvax::SharedLibrary module(HYPERVISOR_MODULE);
   auto* const entry =
      module.GetFunction<LinuxHost::HypervisorEntry>(LinuxHost::kHypervisorEntryName);
   struct : LinuxHost::HypervisorListener {
      void OnVmChanged(const std::string&) override {}
      void OnConnectionLost(const std::string&) override {}
   } listener;
   const std::unique_ptr<LinuxHost::Hypervisor> hypervisor(entry("test:///default"));
   const auto connection = hypervisor->Connect(&listener);
   const auto ids = connection->ListVms();
   ASSERT_EQ(1U, ids.size());
   const auto vm = connection->DescribeVm(ids[0]);
   ASSERT_TRUE(vm);
   EXPECT_EQ("6695eb01-f6a4-8304-79aa-97f2502e193f test 8192MB  4000:net,up,testnet0 "
             "vda:0,/guest/diskimage1",
             Show(*vm));
   EXPECT_EQ(Quen::Vm::PowerState::POWERED_ON, vm->powerState);
   EXPECT_FALSE(connection->DescribeVm("6695eb01-f6a4-8304-79aa-97f2502e1930"));
   EXPECT_THROW(connection->DescribeVm("nonsense"), HostCtl::Lib::HostCtlException);
   const auto records = connection->ReadVms(kAllParts, {}, false);
   ASSERT_EQ(1U, records.size());
   EXPECT_FALSE(records[0].basics || records[0].monitor) << "it has no statistics";
   EXPECT_EQ(1U, connection->ReadVms(LinuxHost::kNoVmParts, ids, true).size());
   EXPECT_TRUE(
      connection->ReadVms(kAllParts, {"6695eb01-f6a4-8304-79aa-97f2502e1930"}, false).empty());
   const std::unique_ptr<LinuxHost::Hypervisor> nowhere(
      entry("qemu:///system?socket=/no/such/socket"));
   try {
      nowhere->Connect(nullptr);
      ADD_FAILURE() << "connected to nowhere";
   } catch (const LinuxHost::RefusedException&) {
      ADD_FAILURE() << "nobody is there to refuse";
   } catch (const HostCtl::Lib::HostCtlException&) { // NOLINT(bugprone-empty-catch)
   }
}

} // namespace
