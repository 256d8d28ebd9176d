#include "bench/filledDepot.h"

#include "corvax/system.h"
#include "metrix/storeFormat.h"

namespace Bench {

namespace {

namespace Format = Metrix::StoreFormat;
using Metrix::TimeStamp;

/// Whether each row of a store is in use, by row.
using RowsInUse = std::vector<bool>;

class StoreWriter {
public:
   StoreWriter(const std::string& directory, int periodSec, unsigned samples, TimeStamp newest)
      : _period(static_cast<uint32_t>(periodSec)), _samples(samples),
        _newest(newest - newest % _period), _file(Corvax::System::GetFactory().NewFileHandle())
   {
      _file->Open(directory + kDepotName + "-" + std::to_string(periodSec) + ".stats",
                  Corvax::FILE_WRITE, Corvax::FileCreation::CREATE_ALWAYS);
   }

   void Write(const RowsInUse& rows)
   {
      std::vector<std::byte> header = Format::EncodeEmptyStore(_samples, _period);
      for (uint32_t column = 0; column < _samples; ++column) {
         const TimeStamp stamp = _newest - uint64_t{_samples - 1 - column} * _period;
         Metrix::Encode(stamp, &header[Format::TimeStampPos(column)]);
      }
      Append(header);
      const std::vector<std::byte> freeRow(Format::RowSize(_samples));
      std::vector<std::byte> usedRow(freeRow.size());
      for (size_t row = 0; row < rows.size(); ++row) {
         Format::StatVector view(usedRow.data());
         view.Clear(_samples);
         view.SetTimeStamp(_newest);
         for (size_t column = 0; column < _samples; ++column) {
            view.SetSample(column, row % 1000 + column);
         }
         Append(rows[row] ? usedRow : freeRow);
      }
   }

private:
   void Append(const std::vector<std::byte>& bytes) { _file->WriteAll(bytes.data(), bytes.size()); }

   const uint32_t _period;
   const uint32_t _samples;
   const TimeStamp _newest;
   const Corvax::Ref<Corvax::FileHandle> _file;
};

} // namespace

void MakeFilledDepot(const std::string& directory, const StatPlan& plan, TimeStamp newest)
{
   const QuietAgent agent;
   CreateStats(*NewDepot(directory, agent.GetLogger(), kNoJournal), plan);
   // A new depot assigns ids in order: to a stat's raw series, then to its rollups.
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
