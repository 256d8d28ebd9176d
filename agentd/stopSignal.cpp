#include "agentd/stopSignal.h"

#include "corvax/exception.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace Agentd {

StopSignal::StopSignal()
{
   sigset_t set;
   ::sigemptyset(&set);
   ::sigaddset(&set, SIGTERM);
   ::sigaddset(&set, SIGINT);
   ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
   ::signal(SIGPIPE, SIG_IGN); // a reader of the report that goes away ends nothing
   _signals = ::signalfd(-1, &set, SFD_CLOEXEC);
   _requests = ::eventfd(0, EFD_CLOEXEC);
   if (_signals < 0 || _requests < 0) {
      throw Corvax::PlatformException("wait for signals", errno);
   }
}

StopSignal::~StopSignal()
{
   ::close(_signals);
   ::close(_requests);
}

void StopSignal::Request()
{
   const uint64_t one = 1;
   // It fails only when it was called 2^64 times.
   [[maybe_unused]] const ssize_t written = ::write(_requests, &one, sizeof one);
}

bool StopSignal::Wait(std::chrono::milliseconds atMost)
{
   pollfd descriptors[] = {{_signals, POLLIN, 0}, {_requests, POLLIN, 0}};
   return ::poll(descriptors, 2, static_cast<int>(atMost.count())) > 0;
}

} // namespace Agentd
