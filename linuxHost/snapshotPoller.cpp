#include "linuxHost/snapshotPoller.h"

#include "corvax/system.h"
#include "corvax/thread.h"

#include <chrono>

namespace LinuxHost {

namespace {

using Corvax::kLogDebug;
using Corvax::kLogWarning;

/// Abandoned calls at one time. Each hanging virtual machine holds one. When the hypervisor itself
/// hangs, every further call would hang, too.
constexpr size_t kMaxAbandonedCalls = 8;

} // namespace

/// A connection with the thread that calls it, one call at a time.
class SnapshotPoller::Caller : public std::enable_shared_from_this<Caller> {
public:
   Caller(std::shared_ptr<Hypervisor> hypervisor, std::shared_ptr<VmHistory> history,
          Corvax::Ref<Corvax::Logger> logger)
      : _hypervisor(std::move(hypervisor)), _history(std::move(history)), _logger(std::move(logger))
   {
   }

   /// The thread keeps the caller alive: a call that hangs may outlast everything else.
   void Start()
   {
      Corvax::StartThread("vm-stats-call", [self = shared_from_this()](const std::stop_token&) {
         self->Run();
      }).detach();
   }

   /// False when the call has not returned before the timeout.
   bool Call(std::chrono::microseconds timeout)
   {
      std::unique_lock lock(_mutex);
      _isRequested = true;
      _changed.notify_all();
      return _changed.wait_for(lock, timeout, [this] { return !_isRequested; });
   }

   /// There are no further calls; the thread ends when the current one returns.
   void Abandon()
   {
      const std::lock_guard guard(_mutex);
      _isAbandoned = true;
      _changed.notify_all();
   }

   bool HasEnded() const
   {
      const std::lock_guard guard(_mutex);
      return _hasEnded;
   }

private:
   void Run()
   {
      std::unique_lock lock(_mutex);
      while (true) {
         _changed.wait(lock, [this] { return _isRequested || _isAbandoned; });
         if (!_isRequested) {
            break;
         }
         lock.unlock();
         MakeCall();
         lock.lock();
         _isRequested = false;
         _changed.notify_all();
      }
      lock.unlock();
      _connection.reset();
      lock.lock();
      _hasEnded = true;
   }

   void MakeCall()
   {
      try {
         if (!_connection) {
            _connection = _hypervisor->Connect(nullptr);
         }
         for (VmRecord& record :
              _connection->ReadVms(VM_BASICS | VM_VCPUS | VM_MONITOR, {}, false)) {
            _history->Add(std::move(record));
         }
      } catch (const std::exception& e) {
         _connection.reset();
         _logger->Log(kLogDebug, "Cannot read the statistics of the virtual machines: %1",
                      e.what());
      }
   }

   const std::shared_ptr<Hypervisor> _hypervisor;
   const std::shared_ptr<VmHistory> _history;
   const Corvax::Ref<Corvax::Logger> _logger;
   std::unique_ptr<HypervisorConnection> _connection; // used by the thread only
   mutable std::mutex _mutex;
   std::condition_variable _changed;
   bool _isRequested = false;
   bool _isAbandoned = false;
   bool _hasEnded = false;
};

SnapshotPoller::SnapshotPoller(std::shared_ptr<Hypervisor> hypervisor,
                               std::shared_ptr<VmHistory> history, int intervalSec,
                               Corvax::Logger* logger)
   : _hypervisor(std::move(hypervisor)), _intervalSec(intervalSec), _logger(logger),
     _history(std::move(history))
{
}

SnapshotPoller::~SnapshotPoller()
{
   Stop();
}

void SnapshotPoller::Start()
{
   _thread = Corvax::StartThread("vm-stats", [this](const std::stop_token& stop) { Run(stop); });
}

void SnapshotPoller::Stop()
{
   if (_thread.joinable()) {
      _thread.request_stop();
      _thread.join();
   }
   if (_caller) {
      _caller->Abandon();
      _caller.reset();
   }
}

int64_t SnapshotPoller::GetDelayToNextPoll(int64_t nowUs, int intervalSec)
{
   const int64_t intervalUs = intervalSec * Corvax::kMicrosecondsPerSecond;
   const int64_t sinceLastUs = (nowUs + intervalUs / 2) % intervalUs;
   return intervalUs - sinceLastUs;
}

void SnapshotPoller::Run(const std::stop_token& stop)
{
   while (!stop.stop_requested()) {
      Poll();
      const std::chrono::microseconds delay(
         GetDelayToNextPoll(Corvax::System::GetTime(), _intervalSec));
      std::unique_lock lock(_wakeMutex);
      _wake.wait_for(lock, stop, delay, [] { return false; });
   }
}

void SnapshotPoller::Poll()
{
   if (!Call() && !Call()) {
      _logger->Log(kLogDebug, "Reading the statistics of the virtual machines timed out twice");
   }
}

bool SnapshotPoller::Call()
{
   std::erase_if(_abandoned,
                 [](const std::shared_ptr<Caller>& caller) { return caller->HasEnded(); });
   if (!_caller) {
      if (_abandoned.size() >= kMaxAbandonedCalls) {
         return false;
      }
      _caller = std::make_shared<Caller>(_hypervisor, _history, _logger);
      _caller->Start();
   }
   const std::chrono::microseconds timeout(_intervalSec * Corvax::kMicrosecondsPerSecond / 4);
   if (_caller->Call(timeout)) {
      return true;
   }
   AbandonCaller();
   return false;
}

void SnapshotPoller::AbandonCaller()
{
   _caller->Abandon();
   _abandoned.push_back(std::move(_caller));
   _caller.reset();
   _logger->Log(
      kLogWarning,
      "Reading the statistics of the virtual machines timed out: a virtual machine or the "
      "hypervisor does not answer; %1 such calls are abandoned",
      _abandoned.size());
}

} // namespace LinuxHost
