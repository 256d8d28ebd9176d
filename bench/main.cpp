#include "bench/measurement.h"
#include "bench/resultLines.h"
#include "bench/workload.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <span>
#include <string_view>

namespace Bench {

Registration::Registration(const std::string& name, const std::string& who,
                           const std::function<void(Measurement&)>& measure, bool needsOnlyOne)
{
   const auto run = [who, measure](benchmark::State& state) {
      state.SetLabel(who);
      try {
         for (auto repetition : state) {
            static_cast<void>(repetition);
            Measurement measurement(state);
            measure(measurement);
         }
      } catch (const std::exception& failure) {
         state.SkipWithError(failure.what());
      }
   };
   benchmark::internal::Benchmark* const registered =
      benchmark::RegisterBenchmark((name + "/" + who).c_str(), run)
         ->Iterations(1)
         ->MeasureProcessCPUTime()
         ->Unit(benchmark::kMillisecond);
   if (needsOnlyOne) {
      registered->Repetitions(1);
   }
}

DepotRegistration::DepotRegistration(
   const std::string& name,
   const std::function<void(Measurement&, const Metrix::JournalOptions&)>& measure,
   bool needsOnlyOne)
{
   const auto with = [measure](const Metrix::JournalOptions& journal) {
      return [measure, journal](Measurement& measurement) { measure(measurement, journal); };
   };
   Registration(name, kOurs, with(kJournal), needsOnlyOne);
   Registration(name, kOursWithoutJournal, with(kNoJournal), needsOnlyOne);
}

namespace {

/// Collects the counters of all repetitions and prints them at the end.
class Reporter : public benchmark::BenchmarkReporter {
public:
   bool ReportContext(const Context& /*context*/) override { return true; }

   void ReportRuns(const std::vector<Run>& runs) override
   {
      for (const Run& run : runs) {
         if (run.error_occurred) {
            std::cerr << "metrixBench: " << run.benchmark_name() << ": " << run.error_message
                      << '\n';
            hasFailed = true;
         } else if (run.run_type == Run::RT_Iteration) {
            AddRun(run);
         }
      }
   }

   void Finalize() override { _lines.Print(std::cout); }

   bool hasFailed = false;

private:
   void AddRun(const Run& run)
   {
      for (const auto& [name, counter] : run.counters) {
         const size_t end = name.find(Measurement::kSeparator);
         _lines.Add(name.substr(0, end), run.report_label, name.substr(end + 1), counter.value);
      }
   }

   ResultLines _lines;
};

int Main(int argc, char** argv)
{
   if (argc < 2 || argv[1][0] == '-') {
      std::fprintf(stderr, "usage: metrixBench DIRECTORY [--quick] [--device=DIRECTORY] "
                           "[--benchmark_...]\n");
      return 2;
   }
   const std::string kDevice = "--device=";
   GetSettings().directory = argv[1] + std::string("/");
   for (const std::string_view argument : std::span(argv + 2, argv + argc)) {
      if (argument.starts_with(kDevice)) {
         GetSettings().deviceDirectory = std::string(argument.substr(kDevice.size())) + "/";
      }
      GetSettings().isQuick = GetSettings().isQuick || argument == "--quick";
   }
   benchmark::Initialize(&argc, argv);
   Reporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   return reporter.hasFailed ? EXIT_FAILURE : EXIT_SUCCESS;
}

} // namespace

} // namespace Bench

int main(int argc, char** argv)
{
   return Bench::Main(argc, argv);
}
