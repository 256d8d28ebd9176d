#include "linuxHost/hypervisorCaller.h"

#include "corvax/thread.h"

#include <utility>

namespace LinuxHost {

std::shared_ptr<HypervisorCaller>
HypervisorCaller::Start(const std::string& threadName, std::shared_ptr<HypervisorGate> gate,
                        std::shared_ptr<HypervisorListener> listener)
{
   const std::shared_ptr<HypervisorCaller> caller(
      new HypervisorCaller(std::move(gate), std::move(listener)));
   Corvax::StartThread(threadName, [caller](const std::stop_token&) { caller->Run(); }).detach();
   return caller;
}

HypervisorCaller::HypervisorCaller(std::shared_ptr<HypervisorGate> gate,
                                   std::shared_ptr<HypervisorListener> listener)
   : _gate(std::move(gate)), _listener(std::move(listener))
{
}

void HypervisorCaller::Begin(Call call, Returned returned)
{
   const std::lock_guard guard(_mutex);
   _call = std::move(call);
   _returned = std::move(returned);
   _changed.notify_all();
}

bool HypervisorCaller::IsCalling() const
{
   const std::lock_guard guard(_mutex);
   return static_cast<bool>(_call);
}

void HypervisorCaller::Abandon()
{
   const std::lock_guard guard(_mutex);
   _isAbandoned = true;
   _changed.notify_all();
}

bool HypervisorCaller::WaitForEnd(std::chrono::steady_clock::time_point deadline)
{
   std::unique_lock lock(_mutex);
   return _changed.wait_until(lock, deadline, [this] { return _hasEnded; });
}

void HypervisorCaller::Run()
{
   std::unique_lock lock(_mutex);
   while (true) {
      _changed.wait(lock, [this] { return _call || _isAbandoned; });
      if (!_call) {
         break;
      }
      const Call call = _call;
      lock.unlock();
      const std::optional<std::string> error = Make(call);
      lock.lock();
      _call = nullptr;
      const Returned returned = std::exchange(_returned, nullptr);
      lock.unlock();
      returned(error); // may begin the next call
      lock.lock();
   }
   lock.unlock();
   _connection.reset(); // this may hang, too
   lock.lock();
   _hasEnded = true;
   _changed.notify_all();
}

std::optional<std::string> HypervisorCaller::Make(const Call& call)
{
   bool mayRetry = _connection && !_listener;
   while (true) {
      try {
         if (!_connection) {
            _connection = _gate->Connect(_listener.get());
         }
         call(*_connection);
         return std::nullopt;
      } catch (const std::exception& e) {
         _connection.reset();
         if (!std::exchange(mayRetry, false)) {
            return e.what();
         }
      }
   }
}

} // namespace LinuxHost
