#pragma once

#include "linuxHost/hypervisor.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

namespace LinuxHost {

/// When a hypervisor that cannot be reached is asked for a connection again.
class ConnectBackOff {
public:
   /// Monotonic time of the next attempt; 0 when the last one has succeeded.
   int64_t GetDueUs() const { return _dueUs; }
   void OnSuccess();
   /// Absent: every 100 ms for two seconds, which a restart takes, then 1, 2, 4, 5, 5 s ... later.
   /// Refused: 10, 20, 40 s ... 10 minutes later, because the hypervisor logs each attempt.
   void OnFailure(int64_t nowUs, bool isRefused);

private:
   int _failures = 0;
   bool _isRefused = false;
   int64_t _dueUs = 0;
};

/// The way to the hypervisor for all that connect to it: while it cannot be reached, they share one
/// attempt at a time, and the first that succeeds lets in the others.
///
/// Locking: its own, a leaf; any thread may call.
class HypervisorGate {
public:
   explicit HypervisorGate(std::shared_ptr<Hypervisor> hypervisor);

   /// As Hypervisor::Connect. Before the next attempt is due, it fails like the last one.
   std::unique_ptr<HypervisorConnection> Connect(HypervisorListener* listener);

   /// Waits until Connect makes sense. False at that monotonic time and on a stop.
   bool Await(const std::stop_token& stop, int64_t deadlineUs);

   /// Why the last attempt failed; empty when it succeeded.
   std::string GetFailure() const;

private:
   void OnFailure(const std::string& text, bool isRefused);

   const std::shared_ptr<Hypervisor> _hypervisor;
   mutable std::mutex _mutex;
   std::condition_variable_any _changed;
   ConnectBackOff _backOff;
   bool _isTrying = false; // while the last attempt has failed: one is being made
   bool _isRefused = false;
   std::string _failure;
};

} // namespace LinuxHost
