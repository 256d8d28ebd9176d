#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace Bench {

/// One repetition of a measurement, which reports its figures here.
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

/// A measurement that the program offers. It makes what it works on itself, times its own parts and
/// is called once a repetition; repetitions of all measurements are mixed.
class Registration {
public:
   Registration(const std::string& name, const std::string& who, void (*measure)(Measurement&));
};

} // namespace Bench
