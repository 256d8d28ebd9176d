#include "linuxHost/libvirt/libvirtObjects.h"

#include "corvax/format.h"
#include "hostctl/lib.h"

#include <libvirt/virterror.h>

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

} // namespace LinuxHost
