#pragma once

#include "guestsvc/guestsvc.h"
#include "hostsvc/resourceMgr.h"

#include <map>

/// One virtual machine as the test wants it.
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
   template <class T>
   static T* Copy(const std::map<std::string, T>& figures, const std::string& id)
   {
      const auto found = figures.find(id);
      return found == figures.end() ? nullptr : new T(found->second);
   }
   Corvax::Ref<Plexa::MoRef> GetRootResourcePool() override
   {
      return Corvax::MakeRef<Plexa::MoRef>(Quen::ResourcePool::GetManagedType(), "root");
   }
   HostCtl::Resource::CpuStats* GetPoolCpuStats(Plexa::MoRef* pool) override
   {
      return Copy(cpu, pool->GetId());
   }
   HostCtl::Resource::MemoryStats* GetPoolMemoryStats(Plexa::MoRef* pool) override
   {
      return Copy(memory, pool->GetId());
   }
   HostCtl::Resource::CpuLoadHistory* GetPoolCpuLoadHistory(Plexa::MoRef* pool) override
   {
      return Copy(load, pool->GetId());
   }
   Corvax::Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() override
   {
      return IsLocked() ? systemRoot : nullptr;
   }
   HostCtl::Resource::CpuStats* GetSystemGroupCpuStats(const std::string& key) override
   {
      return Copy(cpu, key);
   }
   HostCtl::Resource::CpuStats* GetVmCpuStats(Plexa::MoRef* vm) override
   {
      return Copy(cpu, vm->GetId());
   }
   std::vector<HostCtl::Resource::CpuTimes> GetVmCpuTimes(Plexa::MoRef* vm) override
   {
      return vcpus[vm->GetId()];
   }
   HostCtl::Resource::MemoryStats* GetVmMemoryStats(Plexa::MoRef* vm) override
   {
      return Copy(memory, vm->GetId());
   }
   HostCtl::Resource::SwapInfo* GetVmSwapInfo(Plexa::MoRef* vm) override
   {
      return Copy(swap, vm->GetId());
   }
   HostCtl::Resource::MemoryClientStats* GetVmMemoryClientStats(Plexa::MoRef* vm) override
   {
      return Copy(client, vm->GetId());
   }
   HostCtl::Resource::CpuLoadHistory* GetVmCpuLoadHistory(Plexa::MoRef* vm) override
   {
      return Copy(load, vm->GetId());
   }

   std::map<std::string, HostCtl::Resource::CpuStats> cpu;
   std::map<std::string, std::vector<HostCtl::Resource::CpuTimes>> vcpus;
   std::map<std::string, HostCtl::Resource::MemoryStats> memory;
   std::map<std::string, HostCtl::Resource::SwapInfo> swap;
   std::map<std::string, HostCtl::Resource::MemoryClientStats> client;
   std::map<std::string, HostCtl::Resource::CpuLoadHistory> load;
   Corvax::Ref<Quen::Host::SystemResourceInfo> systemRoot;
};
