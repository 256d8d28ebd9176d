#pragma once

#include <atomic>
#include <thread>

namespace LinuxHost {

/// libvirt's event loop on a thread of its own, "libvirt". Connections that are opened while it
/// runs send and answer keepalives, and tell events on it.
class EventLoop {
public:
   /// HostCtl::Lib::HostCtlException where there is no loop or no thread to be had.
   EventLoop();
   /// Ends the thread when it has released what was deregistered so far. Not on that thread.
   ~EventLoop();
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

private:
   void Run();

   std::atomic<bool> _ended = false;
   int _timer = -1;
   std::thread _thread;
};

/// While one of these lives, the process has its event loop; there is one for all, because libvirt
/// knows no other. Errors: the loop's.
class EventLoopUse {
public:
   EventLoopUse();
   ~EventLoopUse();
   EventLoopUse(const EventLoopUse&) = delete;
   EventLoopUse& operator=(const EventLoopUse&) = delete;
};

} // namespace LinuxHost
