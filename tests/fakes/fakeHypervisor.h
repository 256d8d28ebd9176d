#pragma once

#include "corvax/system.h"
#include "hostctl/lib.h"
#include "linuxHost/hypervisor.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>

/// A hypervisor whose virtual machines are set by the test. The listener is notified of each
/// change.
class FakeHypervisor : public LinuxHost::Hypervisor {
public:
   std::unique_ptr<LinuxHost::HypervisorConnection>
   Connect(LinuxHost::HypervisorListener* listener) override
   {
      std::unique_lock lock(_mutex);
      ++_attempts;
      _changed.wait(lock, [this] { return !_isStopped; });
      if (_isRefusing) {
         throw LinuxHost::RefusedException("authentication failed");
      }
      if (_isDown) {
         throw HostCtl::Lib::HostCtlException("connection refused");
      }
      if (listener) {
         _listener = listener;
      }
      return std::make_unique<Connection>(*this, listener);
   }

   /// The time of the figures counts from that of the reading.
   void Set(const LinuxHost::VmDescription& vm, const LinuxHost::VmRecord& figures = {})
   {
      Change(vm.id, [&] {
         _vms[vm.id] = vm;
         _figures[vm.id] = figures;
      });
   }
   void SetState(const std::string& id, Quen::Vm::PowerState state)
   {
      Change(id, [&] { _vms.at(id).powerState = state; });
   }
   void Remove(const std::string& id)
   {
      Change(id, [&] { _vms.erase(id); });
   }
   /// As it is when the hypervisor has no event for it.
   void SetStateUnnoticed(const std::string& id, Quen::Vm::PowerState state)
   {
      const std::lock_guard guard(_mutex);
      _vms.at(id).powerState = state;
   }
   /// Calls that read figures.
   int64_t GetReads()
   {
      const std::lock_guard guard(_mutex);
      return _reads;
   }
   /// Calls that wait for a monitor now.
   int GetWaiting()
   {
      const std::lock_guard guard(_mutex);
      return _waiting;
   }
   /// To connect.
   int64_t GetAttempts()
   {
      const std::lock_guard guard(_mutex);
      return _attempts;
   }
   /// It ends, and all connections with it; those who do not listen find out with their next call.
   void GoDown()
   {
      const std::lock_guard guard(_mutex);
      _isDown = true;
      ++_lives;
      if (_listener) {
         _listener->OnConnectionLost("end of file");
      }
   }
   void ComeBack() { Assign(_isDown, false); }
   void Refuse(bool isRefusing) { Assign(_isRefusing, isRefusing); }
   /// It stops: every call hangs until it goes on.
   void Stop(bool isStopped) { Assign(_isStopped, isStopped); }
   /// The monitors of these and no other machines hang.
   void Hang(const std::set<std::string>& ids) { Assign(_hung, ids); }
   /// The monitors of these and no other machines are in use by another program.
   void Use(const std::set<std::string>& ids) { Assign(_used, ids); }
   /// These and no others cannot be described.
   void Damage(const std::set<std::string>& ids) { Assign(_damaged, ids); }

private:
   struct Connection : LinuxHost::HypervisorConnection {
      Connection(FakeHypervisor& h, LinuxHost::HypervisorListener* l)
         : hypervisor(h), listener(l), life(h._lives)
      {
      }
      ~Connection() override
      {
         const std::lock_guard guard(hypervisor._mutex);
         if (listener && hypervisor._listener == listener) {
            hypervisor._listener = nullptr;
         }
      }
      std::vector<std::string> ListVms() override
      {
         const auto lock = hypervisor.Enter(life);
         std::vector<std::string> all;
         for (const auto& [id, vm] : hypervisor._vms) {
            all.push_back(id);
         }
         return all;
      }
      std::optional<LinuxHost::VmDescription> DescribeVm(const std::string& id) override
      {
         const auto lock = hypervisor.Enter(life);
         if (hypervisor._damaged.contains(id)) {
            throw HostCtl::Lib::HostCtlException("damaged");
         }
         const auto found = hypervisor._vms.find(id);
         return found == hypervisor._vms.end() ? std::nullopt : std::optional(found->second);
      }
      std::vector<LinuxHost::VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& ids,
                                               bool waitForMonitor) override
      {
         auto lock = hypervisor.Enter(life);
         return hypervisor.Read(lock, parts, ids, waitForMonitor);
      }

      FakeHypervisor& hypervisor;
      LinuxHost::HypervisorListener* const listener;
      const int life;
   };

   template <class Value>
   void Assign(Value& member, const Value& value)
   {
      const std::lock_guard guard(_mutex);
      member = value;
      _changed.notify_all();
   }
   template <class Operation>
   void Change(const std::string& id, const Operation& operation)
   {
      const std::lock_guard guard(_mutex);
      operation();
      if (_listener && !_isDown) {
         _listener->OnVmChanged(id);
      }
   }

   std::unique_lock<std::mutex> Enter(int life)
   {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [this] { return !_isStopped; });
      if (life != _lives) {
         throw HostCtl::Lib::HostCtlException("end of file");
      }
      return lock;
   }

   std::vector<LinuxHost::VmRecord> Read(std::unique_lock<std::mutex>& lock, unsigned parts,
                                         std::vector<std::string> ids, bool waitForMonitor)
   {
      _reads += parts != LinuxHost::kNoVmParts ? 1 : 0;
      for (const auto& [id, vm] : ids.empty() ? _vms : decltype(_vms)()) {
         ids.push_back(id);
      }
      std::vector<LinuxHost::VmRecord> records;
      for (const std::string& id : ids) {
         const bool hasMonitor = parts != 0 && AskMonitor(lock, id, waitForMonitor);
         const auto vm = _vms.find(id);
         if (vm == _vms.end() || vm->second.powerState != Quen::Vm::PowerState::POWERED_ON) {
            continue;
         }
         LinuxHost::VmRecord record = _figures.at(id);
         record.id = id;
         record.takenUs += Corvax::System::GetMonotonicTime();
         if (!(parts & LinuxHost::VM_BASICS)) {
            record.basics.reset();
         }
         if (!(parts & LinuxHost::VM_VCPUS)) {
            record.vcpus.reset();
         }
         if (!(parts & LinuxHost::VM_MONITOR) || !hasMonitor) {
            record.monitor.reset();
         }
         records.push_back(std::move(record));
      }
      return records;
   }

   /// One call at a time asks a monitor.
   bool AskMonitor(std::unique_lock<std::mutex>& lock, const std::string& id, bool mayWait)
   {
      const auto isFree = [&] { return !_asked.contains(id) && !_used.contains(id); };
      if (mayWait) {
         ++_waiting;
         _changed.wait(lock, isFree);
         --_waiting;
      }
      if (!isFree()) {
         return false;
      }
      if (_hung.contains(id)) {
         _asked.insert(id);
         _changed.wait(lock, [&] { return !_hung.contains(id); });
         _asked.erase(id);
         _changed.notify_all();
      }
      return true;
   }

   std::mutex _mutex;
   std::condition_variable _changed;
   LinuxHost::HypervisorListener* _listener = nullptr;
   int64_t _reads = 0;
   int64_t _attempts = 0;
   int _lives = 0;
   std::map<std::string, LinuxHost::VmDescription> _vms;
   std::map<std::string, LinuxHost::VmRecord> _figures;
   bool _isDown = false;
   bool _isRefusing = false;
   bool _isStopped = false;
   std::set<std::string> _hung;
   std::set<std::string> _asked; // by a call that hangs
   std::set<std::string> _used;
   int _waiting = 0;
   std::set<std::string> _damaged;
};
