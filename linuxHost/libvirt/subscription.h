#pragma once

#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <memory>
#include <vector>

namespace LinuxHost {

struct ListenerSlot;

/// Delivers a connection's events to its listener. After its destructor the listener is not called.
///
/// Locking: the listener is called with the slot's mutex held, and the destructor takes that mutex:
/// do not destroy a subscription while holding a lock that the listener takes.
class Subscription {
public:
   /// `connection` outlives the subscription.
   Subscription(virConnectPtr connection, HypervisorListener& listener);
   ~Subscription();
   Subscription(const Subscription&) = delete;
   Subscription& operator=(const Subscription&) = delete;

   /// HostCtl::Lib::HostCtlException when libvirt refuses; the destructor undoes what was done.
   void Start();

private:
   void Register(int eventId, virConnectDomainEventGenericCallback callback);

   virConnectPtr _connection;
   std::shared_ptr<ListenerSlot> _slot;
   void* _key;
   std::vector<int> _callbackIds;
};

} // namespace LinuxHost
