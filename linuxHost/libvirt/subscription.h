#pragma once

#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <memory>
#include <vector>

namespace LinuxHost {

struct ListenerSlot;

/// The way of a connection's events to its listener. After its destructor no handler is called.
///
/// Locking: a handler runs with the slot's mutex held, and the destructor takes it: whoever ends a
/// subscription holds no lock that a handler takes.
class Subscription {
public:
   /// `connection` outlives the subscription.
   Subscription(virConnectPtr connection, HypervisorListener& listener);
   ~Subscription();
   Subscription(const Subscription&) = delete;
   Subscription& operator=(const Subscription&) = delete;

   /// HostCtl::Lib::HostCtlException where libvirt refuses; what was begun ends with the object.
   void Start();

private:
   void Register(int eventId, virConnectDomainEventGenericCallback callback);

   virConnectPtr _connection;
   std::shared_ptr<ListenerSlot> _slot;
   void* _key;
   std::vector<int> _callbackIds;
};

} // namespace LinuxHost
