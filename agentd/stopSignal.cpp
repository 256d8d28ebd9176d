#include "agentd/stopSignal.h"

#include "corvax/exception.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <cerrno>

namespace Agentd {

StopSignal::StopSignal()
{
   sigset_t set;
   ::sigemptyset(&set);
   ::sigaddset(&set, SIGTERM);
   ::sigaddset(&set, SIGINT);
   ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
   _signals = Corvax::Descriptor(::signalfd(-1, &set, SFD_CLOEXEC));
   _requests = Corvax::Descriptor(::eventfd(0, EFD_CLOEXEC));
   if (!_signals || !_requests) {
      throw Corvax::PlatformException("wait for signals", errno);
   }
}

void StopSignal::Request()
{
   ::eventfd_write(_requests.Get(), 1); // it fails only after 2^64 calls
}

bool StopSignal::Wait(std::chrono::milliseconds timeout)
{
   pollfd descriptors[] = {{_signals.Get(), POLLIN, 0}, {_requests.Get(), POLLIN, 0}};
   return ::poll(descriptors, 2, static_cast<int>(timeout.count())) > 0;
}

} // namespace Agentd
