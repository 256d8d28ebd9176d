#pragma once

#include "bench/workload.h"
#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <map>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace Bench {

constexpr unsigned kGuestVcpus = 2;

/// Kernel files and hypervisor's answers of a host with so many running virtual machines, each with
/// two virtual CPUs, a NIC and two disks, in groups as systemd and libvirt create them: a scope in
/// machine.slice, a group in it and in that one for each virtual CPU. Every fourth has a quota for
/// its virtual CPUs. The files have the lines that a kernel 6.1 writes.
class GuestTree {
public:
   explicit GuestTree(unsigned guests);

   /// To go before the path of every file; without a slash at the end.
   const std::string& GetRoot() const { return _root; }
   const std::vector<LinuxHost::VmDescription>& GetDescriptions() const { return _descriptions; }
   /// What libvirt 9 with QEMU 7.2 answers for a virtual machine when it is asked for these
   /// LinuxHost::VmParts. Made at the first call.
   std::span<const virTypedParameter> GetAnswer(size_t guest, unsigned parts);

private:
   void Write(const std::string& path, const std::string& text) const;
   void WriteHost() const;
   void AddGuest(unsigned number);
   void WriteGroups(const std::string& scope, bool hasQuota) const;

   const ScratchDirectory _directory;
   const std::string _root;
   std::vector<LinuxHost::VmDescription> _descriptions;
   std::mutex _answersMutex;
   std::map<unsigned, std::vector<std::vector<virTypedParameter>>> _answers; ///< by parts
};

} // namespace Bench
