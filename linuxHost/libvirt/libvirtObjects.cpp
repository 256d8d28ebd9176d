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
   std::string text = Corvax::Format("Cannot %1: %2", attempt, ::virGetLastErrorMessage());
   switch (::virGetLastErrorCode()) {
   case VIR_ERR_AUTH_FAILED:
   case VIR_ERR_AUTH_UNAVAILABLE:
   case VIR_ERR_AUTH_CANCELLED:
   case VIR_ERR_OPERATION_DENIED:
   case VIR_ERR_ACCESS_DENIED:
      throw RefusedException(std::move(text));
   default:
      throw HostCtl::Lib::HostCtlException(std::move(text));
   }
}

} // namespace LinuxHost
