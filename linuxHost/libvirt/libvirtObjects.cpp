#include "linuxHost/libvirt/libvirtObjects.h"

#include "corvax/format.h"
#include "linuxHost/hypervisor.h"

#include <libvirt/virterror.h>

#include <utility>

namespace LinuxHost {

void DomainListReleaser::operator()(virDomainPtr* list) const
{
   for (virDomainPtr* domain = list; *domain != nullptr; ++domain) {
      ::virDomainFree(*domain);
   }
   std::free(static_cast<void*>(list));
}

std::string GetUuid(virDomainPtr domain)
{
   char text[VIR_UUID_STRING_BUFLEN] = "";
   ::virDomainGetUUIDString(domain, text); // fails only for an invalid domain
   return text;
}

void Fail(std::string_view attempt)
{
   throw HostCtl::Lib::HostCtlException(
      Corvax::Format("Cannot %1: %2", attempt, ::virGetLastErrorMessage()));
}

void FailToConnect(std::string_view uri)
{
   const int code = ::virGetLastErrorCode();
   std::string text = Corvax::Format("Cannot connect to %1: %2", uri, ::virGetLastErrorMessage());
   if (code == VIR_ERR_SYSTEM_ERROR || code == VIR_ERR_RPC || code == VIR_ERR_NO_CONNECT) {
      throw HostCtl::Lib::HostCtlException(std::move(text));
   }
   throw RefusedException(std::move(text));
}

} // namespace LinuxHost
