#pragma once

#include <atomic>
#include <thread>

namespace LinuxHost {

/// libvirt's event loop on its own thread, "libvirt". Connections that are opened while it runs use
/// it for keepalives and events.
class EventLoop {
public:
   /// HostCtl::Lib::HostCtlException when the loop or the thread cannot be created.
   EventLoop();
   /// Ends the thread once it has released everything that was deregistered before. Not to be
   /// called on that thread.
   ~EventLoop();
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

private:
   void Run();

   std::atomic<bool> _ended = false;
   int _timer = -1;
   std::jthread _thread;
};

/// The process has its event loop while at least one of these exists. All share one loop, because
/// libvirt supports only one. Errors: those of EventLoop.
class EventLoopUse {
public:
   EventLoopUse();
   ~EventLoopUse();
   EventLoopUse(const EventLoopUse&) = delete;
   EventLoopUse& operator=(const EventLoopUse&) = delete;
};

} // namespace LinuxHost
