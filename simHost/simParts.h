#pragma once

#include "simHost/simFigures.h"

#include <cstdint>
#include <vector>

namespace SimHost {

/// The parts of one kind that an entity has at present: the first ones of that kind, and for each
/// the second from which it counts. A part that joins counts from zero, even if it has been there
/// before.
using SimParts = std::vector<int64_t>;

/// What changes of a virtual machine.
struct VmShape {
   EntityKey key;
   int64_t startSec = 0; ///< of the virtual machine
   SimParts vcpus;
   SimParts cards;
   SimParts images;        ///< on disks of the host
   bool isStuck = false;   ///< cannot be sampled
   bool isHung = false;    ///< has no figures that only its monitor knows: memory and disks
   bool isFailing = false; ///< has no memory figures, and its ports cannot be read

   uint64_t removedUsedUs = 0; ///< CPU time of the virtual CPUs that have left
   int64_t perCpuCorrectionUs = 0;
   int64_t removedCardsKb = 0; ///< traffic of the NICs that have left

   /// Everything counts from zero again.
   void Restart(int64_t timeSec);
   /// `count` is at least 1.
   void SetVcpus(uint64_t count, int64_t timeSec);
   void SetCards(uint64_t count, int64_t timeSec);
   void SetImages(uint64_t count, int64_t timeSec) { images.resize(count, timeSec); }

   /// The virtual CPUs that have left are part of the used time.
   HostCtl::Resource::CpuStats GetCpu(int64_t timeSec) const;
   HostCtl::Resource::CpuTimes GetVcpu(uint64_t vcpu, int64_t timeSec) const;
};

/// The traffic so far of those of an entity's NICs or disks whose index is `first` or higher.
/// `getKey` returns the key of one.
template <class GetKey>
int64_t GetCardsKb(const SimParts& cards, uint64_t first, GetKey getKey, int64_t timeSec)
{
   uint64_t totalKb = 0;
   for (uint64_t card = first; card < cards.size(); ++card) {
      const auto port = GetPort(getKey(card), {timeSec, cards[card]});
      totalKb += (port.bytesReceived >> 10) + (port.bytesSent >> 10);
   }
   return static_cast<int64_t>(totalKb);
}

template <class GetKey>
int64_t GetDisksKb(const SimParts& disks, uint64_t first, GetKey getKey, int64_t timeSec)
{
   uint64_t totalKb = 0;
   for (uint64_t disk = first; disk < disks.size(); ++disk) {
      const auto traffic = GetDisk(getKey(disk), {timeSec, disks[disk]});
      totalKb += (traffic.blocksRead * kBlockSizeBytes >> 10) +
                 (traffic.blocksWritten * kBlockSizeBytes >> 10);
   }
   return static_cast<int64_t>(totalKb);
}

} // namespace SimHost
