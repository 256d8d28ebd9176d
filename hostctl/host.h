#pragma once

#include "hostctl/hardware.h"
#include "hostctl/lib.h"
#include "hostctl/network.h"
#include "hostctl/resource.h"
#include "hostctl/storage.h"

#include <memory>

namespace HostCtl {

/// The host as its kernel reports it. What an operation returns belongs to the caller and must not
/// outlive the provider. Errors: Lib::HostCtlException from every operation.
class Host {
public:
   virtual ~Host();
   virtual Resource::ResourceInfo* GetResourceInfo() = 0;
   virtual Storage::StorageInfo* GetStorageInfo() = 0;
   virtual Network::NetworkInfo* GetNetworkInfo() = 0;
   virtual Hardware::HardwareInfo* GetHardwareInfo() = 0;
};

/// Where the library's figures come from: this Linux machine, a simulated host, a test's fake.
class HostProvider {
public:
   virtual ~HostProvider();
   virtual Host* GetHost() = 0;
   /// The port of that id, null when there is none.
   virtual Network::Port* GetPort(uint32_t portId) = 0;
};

class HostFactory {
public:
   /// A new handle on the host; HostCtlException while no provider is installed.
   static Host* GetHost();

   /// Installs the source of all figures, null for none; no reference is taken. Not while another
   /// thread uses the library.
   static void SetProvider(HostProvider* provider);
};

} // namespace HostCtl
