#include "bench/filledDepot.h"

#include "corvax/exception.h"
#include "metrix/littleEndian.h"

#include <fstream>

namespace Bench {

namespace {

using Metrix::Encode;
using Metrix::TimeStamp;

/// Whether each row of a store is in use, by row.
using RowsInUse = std::vector<bool>;

class StoreWriter {
public:
   StoreWriter(const std::string& directory, int periodSec, unsigned samples, TimeStamp newest)
      : _period(static_cast<uint64_t>(periodSec)), _samples(samples),
        _newest(newest - newest % _period),
        _file(directory + kDepotName + "-" + std::to_string(periodSec) + ".stats",
              std::ios::binary | std::ios::trunc)
   {
   }

   void Write(const RowsInUse& rows)
   {
      Put(static_cast<uint32_t>(_samples));
      Put(static_cast<uint32_t>(_period));
      for (uint64_t column = 0; column < _samples; ++column) {
         Put(_newest - (_samples - 1 - column) * _period);
      }
      for (size_t row = 0; row < rows.size(); ++row) {
         const bool isUsed = rows[row];
         Put(uint32_t{isUsed});
         Put(isUsed ? _newest : uint64_t{0});
         for (uint64_t column = 0; column < _samples; ++column) {
            Put(isUsed ? row % 1000 + column : uint64_t{0});
         }
      }
      _file.close();
      if (!_file) {
         throw Corvax::Exception("Cannot write a store to measure on");
      }
   }

private:
   template <class T>
   void Put(T value)
   {
      std::byte bytes[sizeof(T)];
      Encode(value, bytes);
      _file.write(reinterpret_cast<const char*>(bytes), sizeof bytes);
   }

   const uint64_t _period;
   const uint64_t _samples;
   const TimeStamp _newest;
   std::ofstream _file;
};

} // namespace

void MakeFilledDepot(const std::string& directory, const StatPlan& plan, TimeStamp newest)
{
   const QuietAgent agent;
   CreateStats(*NewDepot(directory, agent.GetLogger()), plan);
   // A new depot gives out ids in order: to a stat's raw series, then to its rollups.
   RowsInUse fine;
   RowsInUse coarse;
   for (const PlannedStat& stat : plan) {
      fine.push_back(true);
      coarse.push_back(false);
      fine.insert(fine.end(), stat.rollups.size(), false);
      coarse.insert(coarse.end(), stat.rollups.size(), true);
   }
   StoreWriter(directory, kFinePeriodSec, kFineSamples, newest).Write(fine);
   StoreWriter(directory, kCoarsePeriodSec, kCoarseSamples, newest).Write(coarse);
}

} // namespace Bench
