#include "linuxHost/hypervisorGate.h"

#include "corvax/system.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace LinuxHost {

namespace {

using Corvax::kMicrosecondsPerSecond;

constexpr int64_t kRestartPauseUs = 100'000;
constexpr int kRestartAttempts = 20;
constexpr int64_t kLongestAbsentUs = 5 * kMicrosecondsPerSecond;
constexpr int64_t kFirstRefusedUs = 10 * kMicrosecondsPerSecond;
constexpr int64_t kLongestRefusedUs = 600 * kMicrosecondsPerSecond;

/// The first pause doubled `times` times.
int64_t Doubled(int64_t firstUs, int times, int64_t longestUs)
{
   constexpr int kMostDoublings = 10; // more than any of them needs
   return std::min(firstUs << std::min(times, kMostDoublings), longestUs);
}

} // namespace

void ConnectBackOff::OnSuccess()
{
   *this = {};
}

void ConnectBackOff::OnFailure(int64_t nowUs, bool isRefused)
{
   if (isRefused != _isRefused) {
      _failures = 0;
      _isRefused = isRefused;
   }
   ++_failures;
   if (isRefused) {
      _dueUs = nowUs + Doubled(kFirstRefusedUs, _failures - 1, kLongestRefusedUs);
   } else if (_failures <= kRestartAttempts) {
      _dueUs = nowUs + kRestartPauseUs;
   } else {
      _dueUs = nowUs +
               Doubled(kMicrosecondsPerSecond, _failures - kRestartAttempts - 1, kLongestAbsentUs);
   }
}

HypervisorGate::HypervisorGate(std::shared_ptr<Hypervisor> hypervisor)
   : _hypervisor(std::move(hypervisor))
{
}

std::unique_ptr<HypervisorConnection> HypervisorGate::Connect(HypervisorListener* listener)
{
   {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [this] { return !_isTrying; });
      if (Corvax::System::GetMonotonicTime() < _backOff.GetDueUs()) {
         if (_isRefused) {
            throw RefusedException(_failure);
         }
         throw HostCtl::Lib::HostCtlException(_failure);
      }
      _isTrying = _backOff.GetDueUs() != 0;
   }
   try {
      auto connection = _hypervisor->Connect(listener);
      const std::lock_guard guard(_mutex);
      _isTrying = false;
      _failure.clear();
      _backOff.OnSuccess();
      _changed.notify_all();
      return connection;
   } catch (const RefusedException& e) {
      OnFailure(e.GetMessage(), true);
      throw;
   } catch (const std::exception& e) {
      OnFailure(e.what(), false);
      throw;
   }
}

void HypervisorGate::OnFailure(const std::string& text, bool isRefused)
{
   const std::lock_guard guard(_mutex);
   _isTrying = false;
   _isRefused = isRefused;
   _failure = text;
   _backOff.OnFailure(Corvax::System::GetMonotonicTime(), isRefused);
   _changed.notify_all();
}

bool HypervisorGate::Await(const std::stop_token& stop, int64_t deadlineUs)
{
   std::unique_lock lock(_mutex);
   const auto isOpen = [this] {
      return !_isTrying && Corvax::System::GetMonotonicTime() >= _backOff.GetDueUs();
   };
   while (!stop.stop_requested() && !isOpen()) {
      const int64_t nowUs = Corvax::System::GetMonotonicTime();
      if (nowUs >= deadlineUs) {
         return false;
      }
      const int64_t untilUs = _isTrying ? deadlineUs : std::min(_backOff.GetDueUs(), deadlineUs);
      _changed.wait_for(lock, stop, std::chrono::microseconds(untilUs - nowUs), isOpen);
   }
   return !stop.stop_requested();
}

std::string HypervisorGate::GetFailure() const
{
   const std::lock_guard guard(_mutex);
   return _failure;
}

} // namespace LinuxHost
