#include "quen/inventory.h"
#include "quen/performanceManager.h"

namespace Quen {

namespace {

constexpr Plexa::ManagedType kManagedEntity{"ManagedEntity"};
constexpr Plexa::ManagedType kPerformanceManager{"PerformanceManager"};
constexpr Plexa::ManagedType kVirtualMachine{"VirtualMachine", &kManagedEntity};
constexpr Plexa::ManagedType kHostSystem{"HostSystem", &kManagedEntity};
constexpr Plexa::ManagedType kResourcePool{"ResourcePool", &kManagedEntity};

} // namespace

PerformanceManager::~PerformanceManager() = default;
ManagedEntity::~ManagedEntity() = default;
VirtualMachine::~VirtualMachine() = default;
HostSystem::~HostSystem() = default;
ResourcePool::~ResourcePool() = default;

const Plexa::ManagedType& PerformanceManager::GetManagedType()
{
   return kPerformanceManager;
}

const Plexa::ManagedType& VirtualMachine::GetManagedType()
{
   return kVirtualMachine;
}

const Plexa::ManagedType& HostSystem::GetManagedType()
{
   return kHostSystem;
}

const Plexa::ManagedType& ResourcePool::GetManagedType()
{
   return kResourcePool;
}

} // namespace Quen
