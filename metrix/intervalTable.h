#pragma once

#include "corvax/logger.h"
#include "metrix/statsStore.h"

#include <string>
#include <utility>

namespace Metrix {

/// One resolution of a depot, with its store.
struct Interval : Corvax::ObjectImpl {
   Interval(std::string name, std::string storeName, int samplingPeriod, uint32_t numSamples)
      : _intervalName(std::move(name)), _storeName(std::move(storeName)),
        _samplingPeriod(samplingPeriod), _numSamples(numSamples)
   {
   }

   /// AssertionException while the store is neither created nor loaded.
   StatsStore& GetStore() const;
   uint64_t GetPeriod() const { return static_cast<uint64_t>(_samplingPeriod); }

   const std::string _intervalName;
   const std::string _storeName; ///< the store file's path
   const int _samplingPeriod;    ///< seconds
   const uint32_t _numSamples;
   Corvax::Ref<StatsStore> _statsStore;
};

/// The intervals of a depot.
///
/// Invariant: finest first; each sampling period is a multiple of the one before.
/// Locking: none; used under the depot's lock.
class IntervalTable : public Corvax::ObjectImpl {
public:
   explicit IntervalTable(Corvax::Logger* logger) : _logger(logger) {}

   /// Adds an interval without a store: LoadInterval or InitInterval follows. "Invalid argument",
   /// with nothing changed, for a name that is empty or taken, a period or number of samples out of
   /// range, or a period that is not a multiple of, and greater than, all others.
   void AddInterval(const std::string& name, const std::string& storeName, int samplingPeriod,
                    uint32_t numSamples);

   /// Opens the store file. Exception when it cannot be used, or has another number of columns than
   /// the interval; the interval then has no store.
   void LoadInterval(const std::string& name, bool readOnly = false);

   /// Gives the interval an empty store, whose file is not created yet.
   void PlanInterval(const std::string& name);

   /// Takes the interval out of the table.
   void RemoveInterval(const std::string& name);

   /// Creates an empty store file, over one that exists.
   void InitInterval(const std::string& name);

   /// Null when there is none.
   Interval* FindInterval(const std::string& name) const;
   Interval* GetIntervalAt(int index) const;
   int GetNumIntervals() const { return static_cast<int>(_intervalList.size()); }
   auto begin() const { return _intervalList.begin(); }
   auto end() const { return _intervalList.end(); }

private:
   Interval& GetInterval(const std::string& name) const;
   [[noreturn]] void Refuse(const char* pattern, int period, int otherPeriod) const;

   Corvax::RefVector<Interval> _intervalList;
   const Corvax::Ref<Corvax::Logger> _logger;
};

} // namespace Metrix
