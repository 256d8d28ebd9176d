#pragma once

#include "guestsvc/guestsvc.h"
#include "hostsvc/resourceMgr.h"

#include <gtest/gtest.h>

#include <map>

/// A virtual machine whose state the test sets.
struct FakeVm : Guestsvc::HaVirtualMachine, Corvax::LockableObjectImpl {
   explicit FakeVm(const std::string& id)
      : moRef(Corvax::MakeRef<Plexa::MoRef>(Quen::VirtualMachine::GetManagedType(), id))
   {
   }
   Plexa::MoRef* GetMoRef() override { return moRef.Get(); }
   bool IsStatsAvailable() override { return available && IsLocked(); }
   Corvax::Ref<Quen::Vm::ConfigInfo> GetConfig() override { return config; }
   Corvax::Ref<Quen::Vm::RuntimeInfo> GetRuntime() override { return runtime; }
   uint64_t GetHeartbeatCount() override { return 7; }
   int32_t GetWorldId() override { return worldId; }
   uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) override
   {
      return static_cast<uint32_t>(card->GetKey());
   }
   int64_t GetNetworkSumCorrectionKb() override { return networkSumCorrectionKb; }

   void AddCard(int32_t key, bool onNetwork, bool connected)
   {
      auto card = Corvax::MakeRef<Quen::Vm::Device::VirtualEthernetCard>();
      card->key = key;
      card->connectable = Corvax::MakeRef<Quen::Vm::Device::ConnectInfo>();
      card->connectable->connected = connected;
      if (onNetwork) {
         card->backing =
            Corvax::MakeRef<Quen::Vm::Device::VirtualEthernetCard::NetworkBackingInfo>();
      }
      if (!config->hardware.device) {
         config->hardware.device =
            Corvax::MakeRef<Plexa::DataArray<Quen::Vm::Device::VirtualDevice>>();
      }
      config->hardware.device->Append(card);
   }

   const Corvax::Ref<Plexa::MoRef> moRef;
   const Corvax::Ref<Quen::Vm::ConfigInfo> config = Corvax::MakeRef<Quen::Vm::ConfigInfo>();
   const Corvax::Ref<Quen::Vm::RuntimeInfo> runtime = Corvax::MakeRef<Quen::Vm::RuntimeInfo>();
   bool available = true;
   int32_t worldId = -1;
   int64_t networkSumCorrectionKb = 0;
};

struct FakeGuestsvc : Guestsvc::Guestsvc, Corvax::ObjectImpl {
   void GetPoweredOnVms(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& vms) override
   {
      vms = Corvax::MakeRef<Plexa::DataArray<Plexa::MoRef>>();
      for (const auto& vm : poweredOn) {
         vms->Append(vm->moRef);
      }
   }
   Corvax::RefVector<FakeVm> poweredOn;
};

struct FakePool : Quen::ResourcePool, Corvax::ObjectImpl {
   explicit FakePool(const std::string& id)
      : moRef(Corvax::MakeRef<Plexa::MoRef>(Quen::ResourcePool::GetManagedType(), id))
   {
   }
   Plexa::MoRef* GetMoRef() override { return moRef.Get(); }
   void GetChildPools(Corvax::Ref<Plexa::DataArray<Plexa::MoRef>>& pools) override
   {
      pools = children;
   }
   void AddChild(const Corvax::Ref<FakePool>& child)
   {
      if (!children) {
         children = Corvax::MakeRef<Plexa::DataArray<Plexa::MoRef>>();
      }
      children->Append(child->moRef);
   }
   const Corvax::Ref<Plexa::MoRef> moRef;
   Corvax::Ref<Plexa::DataArray<Plexa::MoRef>> children;
};

/// Figures by id; an id without an entry has none.
struct FakeResourceMgr : Hostsvc::ResourceMgr, Corvax::LockableObjectImpl {
   using MoRef = Plexa::MoRef;
   using CpuStats = HostCtl::Resource::CpuStats;
   using CpuTimes = std::vector<HostCtl::Resource::CpuTimes>;
   using CpuLoad = HostCtl::Resource::CpuLoadHistory;
   using MemoryStats = HostCtl::Resource::MemoryStats;
   using SwapInfo = HostCtl::Resource::SwapInfo;
   using ClientStats = HostCtl::Resource::MemoryClientStats;

   template <class T>
   static T* Copy(const std::map<std::string, T>& figures, MoRef* entity)
   {
      const auto found = figures.find(entity->GetId());
      return found == figures.end() ? nullptr : new T(found->second);
   }
   Corvax::Ref<MoRef> GetRootResourcePool() override
   {
      return Corvax::MakeRef<MoRef>(Quen::ResourcePool::GetManagedType(), "root");
   }
   Corvax::Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() override
   {
      EXPECT_TRUE(IsLocked());
      return nullptr;
   }
   CpuStats* GetSystemGroupCpuStats(const std::string& /*key*/) override { return nullptr; }
   CpuStats* GetPoolCpuStats(MoRef* pool) override { return Copy(cpu, pool); }
   MemoryStats* GetPoolMemoryStats(MoRef* pool) override { return Copy(memory, pool); }
   CpuLoad* GetPoolCpuLoadHistory(MoRef* /*pool*/) override { return nullptr; }
   CpuStats* GetVmCpuStats(MoRef* vm) override { return Copy(cpu, vm); }
   CpuTimes GetVmCpuTimes(MoRef* vm) override { return vcpus[vm->GetId()]; }
   MemoryStats* GetVmMemoryStats(MoRef* vm) override { return Copy(memory, vm); }
   SwapInfo* GetVmSwapInfo(MoRef* vm) override { return Copy(swap, vm); }
   ClientStats* GetVmMemoryClientStats(MoRef* vm) override { return Copy(client, vm); }
   CpuLoad* GetVmCpuLoadHistory(MoRef* /*vm*/) override { return nullptr; }

   std::map<std::string, CpuStats> cpu;
   std::map<std::string, CpuTimes> vcpus;
   std::map<std::string, MemoryStats> memory;
   std::map<std::string, SwapInfo> swap;
   std::map<std::string, ClientStats> client;
};
