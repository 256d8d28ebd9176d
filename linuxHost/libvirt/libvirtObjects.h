#pragma once

#include <libvirt/libvirt.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

/// Owners of libvirt's objects, and its errors. Every call of libvirt, including a release, clears
/// the thread's last error: read it first.
namespace LinuxHost {

template <auto Release>
struct Releaser {
   template <class T>
   void operator()(T* object) const
   {
      static_cast<void>(Release(object));
   }
};

/// Frees a list that ends with a null.
struct DomainListReleaser {
   void operator()(virDomainPtr* list) const;
};

using ConnectionHandle = std::unique_ptr<virConnect, Releaser<::virConnectClose>>;
using DomainHandle = std::unique_ptr<virDomain, Releaser<::virDomainFree>>;
using DomainList = std::unique_ptr<virDomainPtr[], DomainListReleaser>;
using RecordList =
   std::unique_ptr<virDomainStatsRecordPtr[], Releaser<::virDomainStatsRecordListFree>>;
using Text = std::unique_ptr<char, Releaser<std::free>>;

/// Lower case, as libvirt writes it. Clears the last error.
std::string GetUuid(virDomainPtr domain);

/// Throws HostCtl::Lib::HostCtlException: "Cannot " + `attempt` + ": " + libvirt's last error.
[[noreturn]] void Fail(std::string_view attempt);

/// The same when no connection came about. An error of the system, as of a socket that nobody
/// listens on, means that libvirt is absent; any other is libvirt's answer, a RefusedException.
[[noreturn]] void FailToConnect(std::string_view uri);

} // namespace LinuxHost
