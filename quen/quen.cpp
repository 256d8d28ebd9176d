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
ElementDescription::~ElementDescription() = default;
HistoricalInterval::~HistoricalInterval() = default;
PerformanceDescription::~PerformanceDescription() = default;
PerformanceManager::CounterInfo::~CounterInfo() = default;
PerformanceManager::MetricId::~MetricId() = default;
PerformanceManager::SampleInfo::~SampleInfo() = default;
PerformanceManager::MetricSeries::~MetricSeries() = default;
PerformanceManager::IntSeries::~IntSeries() = default;
PerformanceManager::MetricSeriesCSV::~MetricSeriesCSV() = default;
PerformanceManager::EntityMetricBase::~EntityMetricBase() = default;
PerformanceManager::EntityMetric::~EntityMetric() = default;
PerformanceManager::EntityMetricCSV::~EntityMetricCSV() = default;
PerformanceManager::QuerySpec::~QuerySpec() = default;
PerformanceManager::ProviderSummary::~ProviderSummary() = default;
PerformanceManager::CompositeEntityMetric::~CompositeEntityMetric() = default;
Host::SystemResourceInfo::~SystemResourceInfo() = default;
Vm::RuntimeInfo::~RuntimeInfo() = default;
Vm::ConfigInfo::~ConfigInfo() = default;
Vm::Device::ConnectInfo::~ConnectInfo() = default;
Vm::Device::BackingInfo::~BackingInfo() = default;
Vm::Device::VirtualDevice::~VirtualDevice() = default;
Vm::Device::VirtualEthernetCard::~VirtualEthernetCard() = default;
Vm::Device::VirtualEthernetCard::NetworkBackingInfo::~NetworkBackingInfo() = default;

const Plexa::ManagedType& PerformanceManager::GetManagedType()
{
   return kPerformanceManager;
}

Vm::Freshness VirtualMachine::GetFreshness()
{
   return {Vm::Freshness::State::FRESH, 0, ""};
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
