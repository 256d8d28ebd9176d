#include "bench/peers/work.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>

namespace Peers {

namespace {

/** Well mixed and always the same: neighbouring series have nothing in common. */
uint64_t Mix(int series, int stamp)
{
   uint64_t bits = (static_cast<uint64_t>(series) << 32) | static_cast<uint32_t>(stamp);
   bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9U;
   bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebU;
   return bits ^ (bits >> 31);
}

/** A counter's growth per stamp: its own size and up to a quarter more. */
uint64_t Growth(int series, int stamp)
{
   const uint64_t size = 64 + Mix(series, -1) % 20'000;
   return size + Mix(series, stamp) % (size / 4 + 1);
}

} // namespace

uint64_t CounterValue(int series, int stamp)
{
   // Adding up all growths would be slow. A stamp times the largest growth never falls either.
   const uint64_t size = 64 + Mix(series, -1) % 20'000;
   return static_cast<uint64_t>(stamp) * (size + size / 4) + Growth(series, stamp);
}

double Value(int series, int stamp)
{
   if (IsCounter(series)) {
      return static_cast<double>(Growth(series, stamp)) / kStepSec;
   }
   return static_cast<double>(Mix(series, stamp) % 100'000) / 100.0;
}

Options ParseOptions(int argc, char** argv)
{
   Options options;
   for (int ix = 1; ix < argc; ++ix) {
      const std::string_view argument = argv[ix];
      if (argument == "--quick") {
         options.quick = true;
      } else if (argument == "--scratch" && ix + 1 < argc) {
         options.scratch = argv[++ix];
      } else if (!argument.starts_with("-") && options.variant.empty()) {
         options.variant = argument;
      } else {
         throw std::runtime_error("unknown argument " + std::string(argument));
      }
   }
   if (options.scratch.empty()) {
      throw std::runtime_error("needs --scratch DIR");
   }
   return options;
}

int RunPeer(int argc, char** argv, void (*body)(const Options&))
{
   try {
      body(ParseOptions(argc, argv));
      return 0;
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
      return 1;
   }
}

void ThrowErrno(const std::string& what)
{
   const int code = errno;
   throw std::runtime_error(what + ": " + std::strerror(code));
}

void Report(const std::string& work, const std::string& who, double value, const std::string& unit,
            const std::string& note)
{
   // No program's text has a quote or a backslash, so nothing needs escaping.
   std::printf(R"({"work": "%s", "who": "%s", "value": %.4g, "unit": "%s", "note": "%s"})"
               "\n",
               work.c_str(), who.c_str(), value, unit.c_str(), note.c_str());
   std::fflush(stdout);
}

} // namespace Peers
