#pragma once

#include "metrix/statsDepot.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace Bench {

/// One repetition of a measurement, which reports its figures to this object.
class Measurement {
public:
   explicit Measurement(benchmark::State& state) : _state(state) {}

   void Report(const std::string& work, const std::string& unit, double value)
   {
      _state.counters[work + kSeparator + unit] = value;
   }

   static constexpr char kSeparator = ' ';

private:
   benchmark::State& _state;
};

/// A measurement of the program. It creates the data it works on, times its own parts and is called
/// once per repetition; repetitions of all measurements are interleaved. Figures that hardly vary
/// need only one.
class Registration {
public:
   Registration(const std::string& name, const std::string& who,
                const std::function<void(Measurement&)>& measure, bool needsOnlyOne = false);
};

/// A measurement of a depot as the agent opens it, and of one without a journal.
class DepotRegistration {
public:
   DepotRegistration(
      const std::string& name,
      const std::function<void(Measurement&, const Metrix::JournalOptions&)>& measure,
      bool needsOnlyOne = false);
};

} // namespace Bench
