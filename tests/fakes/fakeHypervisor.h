#pragma once

#include "corvax/system.h"
#include "hostctl/lib.h"
#include "linuxHost/hypervisor.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

/// A hypervisor whose virtual machines are set by the test. The listener is notified of each
/// change.
class FakeHypervisor : public LinuxHost::Hypervisor {
public:
   std::unique_ptr<LinuxHost::HypervisorConnection>
   Connect(LinuxHost::HypervisorListener* listener) override
   {
      const std::lock_guard guard(_mutex);
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
   int64_t GetReads()
   {
      const std::lock_guard guard(_mutex);
      return _reads;
   }
   void GoDown()
   {
      const std::lock_guard guard(_mutex);
      _isDown = true;
      if (_listener) {
         _listener->OnConnectionLost("end of file");
      }
   }
   void ComeBack() { Assign(_isDown, false); }
   /// The VM's monitor stops answering: the next call waits for it, and others leave the VM out. An
   /// empty id ends that.
   void Hang(const std::string& id) { Assign(_hung, id); }

private:
   struct Connection : LinuxHost::HypervisorConnection {
      Connection(FakeHypervisor& h, LinuxHost::HypervisorListener* l) : hypervisor(h), listener(l)
      {
      }
      ~Connection() override
      {
         const std::lock_guard guard(hypervisor._mutex);
         if (listener && hypervisor._listener == listener) {
            hypervisor._listener = nullptr;
         }
      }
      std::vector<LinuxHost::VmDescription> ListVms() override
      {
         const std::lock_guard guard(hypervisor._mutex);
         std::vector<LinuxHost::VmDescription> all;
         all.reserve(hypervisor._vms.size());
         for (const auto& [id, vm] : hypervisor._vms) {
            all.push_back(vm);
         }
         return all;
      }
      std::optional<LinuxHost::VmDescription> DescribeVm(const std::string& id) override
      {
         const std::lock_guard guard(hypervisor._mutex);
         const auto found = hypervisor._vms.find(id);
         return found == hypervisor._vms.end() ? std::nullopt : std::optional(found->second);
      }
      std::vector<LinuxHost::VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& ids,
                                               bool waitForMonitor) override
      {
         return hypervisor.Read(parts, ids, waitForMonitor);
      }

      FakeHypervisor& hypervisor;
      LinuxHost::HypervisorListener* const listener;
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

   std::vector<LinuxHost::VmRecord>
   Read(unsigned /*parts*/, const std::vector<std::string>& /*ids*/, bool /*waitForMonitor*/)
   {
      std::unique_lock lock(_mutex);
      if (_isDown) {
         throw HostCtl::Lib::HostCtlException("connection refused");
      }
      const std::string leftOut = _isCallWaiting ? _hung : "";
      if (!_hung.empty() && !_isCallWaiting) {
         _isCallWaiting = true;
         _changed.wait(lock, [this] { return _hung.empty(); });
         _isCallWaiting = false;
      }
      ++_reads;
      std::vector<LinuxHost::VmRecord> records;
      for (const auto& [id, vm] : _vms) {
         if (vm.powerState == Quen::Vm::PowerState::POWERED_ON && id != leftOut) {
            records.push_back(_figures.at(id));
            records.back().id = id;
            records.back().takenUs += Corvax::System::GetMonotonicTime();
         }
      }
      return records;
   }

   std::mutex _mutex;
   std::condition_variable _changed;
   LinuxHost::HypervisorListener* _listener = nullptr;
   std::map<std::string, LinuxHost::VmDescription> _vms;
   std::map<std::string, LinuxHost::VmRecord> _figures;
   bool _isDown = false;
   int64_t _reads = 0;
   std::string _hung;
   bool _isCallWaiting = false;
};
