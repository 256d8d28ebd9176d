#pragma once

#include "linuxHost/hypervisorGate.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace LinuxHost {

/// A connection with a thread of its own that makes one call after the other, so that a call that
/// hangs holds up nobody else.
///
/// Ownership: shared with the thread, which outlives everything else while a call hangs. It alone
/// uses and closes the connection. Errors: a failed call closes the connection; the next one makes
/// another. Locking: its own, a leaf; any thread may call.
class HypervisorCaller : public std::enable_shared_from_this<HypervisorCaller> {
public:
   using Call = std::function<void(HypervisorConnection&)>;
   /// Gets the error; unset after success.
   using Returned = std::function<void(const std::optional<std::string>&)>;

   /// Starts the thread. A connection that turns out dead is replaced by another within the same
   /// call, but not one with a listener: the listener could have missed events.
   static std::shared_ptr<HypervisorCaller>
   Start(const std::string& threadName, std::shared_ptr<HypervisorGate> gate,
         std::shared_ptr<HypervisorListener> listener = nullptr);

   /// Begins a call; the one before must have returned. `returned` is called after it on the
   /// caller's thread, also when the caller was abandoned meanwhile.
   void Begin(Call call, Returned returned);
   bool IsCalling() const;

   /// There are no further calls: the thread closes the connection and ends when the present call
   /// returns.
   void Abandon();
   /// False when the thread has not ended by then.
   bool WaitForEnd(std::chrono::steady_clock::time_point deadline);

private:
   HypervisorCaller(std::shared_ptr<HypervisorGate> gate,
                    std::shared_ptr<HypervisorListener> listener);

   void Run();
   std::optional<std::string> Make(const Call& call);

   const std::shared_ptr<HypervisorGate> _gate;
   const std::shared_ptr<HypervisorListener> _listener;
   std::unique_ptr<HypervisorConnection> _connection; // used by the thread only
   mutable std::mutex _mutex;
   std::condition_variable _changed;
   Call _call; // empty: none is being made
   Returned _returned;
   bool _isAbandoned = false;
   bool _hasEnded = false;
};

} // namespace LinuxHost
