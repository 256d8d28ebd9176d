#include "linuxHost/libvirt/eventLoop.h"

#include "corvax/format.h"
#include "corvax/thread.h"
#include "hostctl/lib.h"
#include "linuxHost/libvirt/libvirtObjects.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <cstdint>
#include <mutex>
#include <system_error>

namespace LinuxHost {

namespace {

constexpr char kAttempt[] = "run libvirt's event loop";

/// Once per process: libvirt accepts only one registration, and it is permanent.
void PrepareLibvirt()
{
   // The first call of all: without it, libvirt cannot store a thread's last error.
   if (::virInitialize() < 0) {
      throw HostCtl::Lib::HostCtlException("Cannot initialise libvirt");
   }
   // Without a handler libvirt prints every error to standard error.
   ::virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
   if (::virEventRegisterDefaultImpl() < 0) {
      Fail(kAttempt);
   }
}

/// The loop of this process and its users. Locking: the mutex is held while the loop is created and
/// destroyed, so that there are never two; no handler of a connection takes it. Never destroyed: at
/// the process's end a thread may still hang in a call.
struct SharedLoop {
   std::mutex mutex;
   bool isPrepared = false;
   int64_t users = 0;
   EventLoop* loop = nullptr;
};

SharedLoop& GetSharedLoop()
{
   static auto* const shared = new SharedLoop;
   return *shared;
}

} // namespace

EventLoop::EventLoop()
{
   // The timer never fires; its purpose is to be removed. libvirt releases removed items later, on
   // the loop's thread and in order: the timer's argument after everything removed before it.
   _timer = ::virEventAddTimeout(
      -1, [](int, void*) {}, &_ended,
      [](void* ended) { *static_cast<std::atomic<bool>*>(ended) = true; });
   if (_timer < 0) {
      Fail(kAttempt);
   }
   try {
      _thread = Corvax::StartThread("libvirt", [this](const std::stop_token&) { Run(); });
   } catch (const std::system_error& failure) {
      ::virEventRemoveTimeout(_timer);
      Run(); // in place of the thread: libvirt must release its pointer to this object
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Cannot %1: %2", kAttempt, failure.what()));
   }
}

EventLoop::~EventLoop()
{
   ::virEventRemoveTimeout(_timer);
   _thread.join();
}

void EventLoop::Run()
{
   while (!_ended) {
      // It fails only without a registered loop.
      static_cast<void>(::virEventRunDefaultImpl());
   }
}

EventLoopUse::EventLoopUse()
{
   SharedLoop& shared = GetSharedLoop();
   const std::lock_guard guard(shared.mutex);
   if (!shared.isPrepared) {
      PrepareLibvirt();
      shared.isPrepared = true;
   }
   if (shared.users == 0) {
      shared.loop = new EventLoop;
   }
   ++shared.users;
}

EventLoopUse::~EventLoopUse()
{
   SharedLoop& shared = GetSharedLoop();
   const std::lock_guard guard(shared.mutex);
   if (--shared.users == 0) {
      delete shared.loop;
      shared.loop = nullptr;
   }
}

} // namespace LinuxHost
