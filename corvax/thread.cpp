#include "corvax/thread.h"

#include <pthread.h>

namespace Corvax {

std::jthread StartThread(const std::string& name, std::function<void(std::stop_token)> body)
{
   std::jthread thread(std::move(body));
   ::pthread_setname_np(thread.native_handle(), name.substr(0, 15).c_str());
   return thread;
}

} // namespace Corvax
