#pragma once

#include "hostctl/hardware.h"
#include "hostctl/lib.h"
#include "hostctl/network.h"
#include "hostctl/resource.h"
#include "hostctl/storage.h"

#include <memory>

namespace HostCtl {

/// The host as its kernel reports it. Ownership: the caller owns every raw pointer that is
/// returned; the object must not outlive the provider. Errors: Lib::HostCtlException from every
/// operation.
class Host {
public:
   virtual ~Host();
   virtual Resource::ResourceInfo* GetResourceInfo() = 0;
   virtual Storage::StorageInfo* GetStorageInfo() = 0;
   virtual Network::NetworkInfo* GetNetworkInfo() = 0;
   virtual Hardware::HardwareInfo* GetHardwareInfo() = 0;
};

/// The source of the library's figures: this Linux machine, a simulated host or a test's fake.
class HostProvider {
public:
   virtual ~HostProvider();
   virtual Host* GetHost() = 0;
   /// The port with the id `portId`; null if there is none.
   virtual Network::Port* GetPort(uint32_t portId) = 0;
};

class HostFactory {
public:
   /// A new handle on the host. HostCtlException if no provider is installed.
   static Host* GetHost();

   /// Installs the source of all figures; null removes it. The caller keeps ownership. Must not be
   /// called while another thread uses the library.
   static void SetProvider(HostProvider* provider);
};

} // namespace HostCtl
