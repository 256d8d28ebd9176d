#include "hostctl/host.h"

#include <atomic>

namespace HostCtl {

namespace {

std::atomic<HostProvider*> theProvider{nullptr};

HostProvider& Provider()
{
   HostProvider* const provider = theProvider.load(std::memory_order_acquire);
   if (provider == nullptr) {
      throw Lib::HostCtlException("No provider of host figures is installed");
   }
   return *provider;
}

} // namespace

Hardware::Cpu::~Cpu() = default;
Hardware::CpuInfo::~CpuInfo() = default;
Hardware::MemoryInfo::~MemoryInfo() = default;
Hardware::HardwareInfo::~HardwareInfo() = default;
Host::~Host() = default;
HostProvider::~HostProvider() = default;
Network::Port::~Port() = default;
Network::PhysicalNic::~PhysicalNic() = default;
Network::NetworkInfo::~NetworkInfo() = default;
Resource::ResourceGroup::~ResourceGroup() = default;
Resource::ResourceInfo::~ResourceInfo() = default;
Storage::DiskLun::~DiskLun() = default;
Storage::StorageInfo::~StorageInfo() = default;

namespace Lib {

HostCtlException::HostCtlException(std::string message) : _message(std::move(message)) {}
HostCtlException::~HostCtlException() = default;

} // namespace Lib

int64_t Network::NetworkInfo::GetSumCorrectionKb()
{
   return 0;
}

int64_t Storage::StorageInfo::GetSumCorrectionKb()
{
   return 0;
}

Host* HostFactory::GetHost()
{
   return Provider().GetHost();
}

void HostFactory::SetProvider(HostProvider* provider)
{
   theProvider.store(provider, std::memory_order_release);
}

Network::Port* Network::NetworkFactory::GetPort(uint32_t portId)
{
   return Provider().GetPort(portId);
}

} // namespace HostCtl
