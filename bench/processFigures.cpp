#include "bench/processFigures.h"

#include "corvax/exception.h"
#include "linuxHost/kernel/kernelFile.h"

#include <filesystem>

namespace Bench {

namespace {

std::string ReadText(const std::string& path)
{
   return std::string(LinuxHost::KernelFile(path).Read());
}

/// The number after "name:" at the start of a line.
double FindNumber(const std::string& text, const std::string& name)
{
   const std::string start = "\n" + name + ":";
   const size_t at = ("\n" + text).find(start);
   if (at == text.npos) {
      throw Corvax::Exception("The kernel does not report " + name + " of a process");
   }
   return std::stod(text.substr(at + start.size() - 1));
}

} // namespace

IoCounts IoCounts::Read(const std::string& process)
{
   const std::string text = ReadText("/proc/" + process + "/io");
   return {FindNumber(text, "syscr") + FindNumber(text, "syscw"),
           FindNumber(text, "rchar") + FindNumber(text, "wchar")};
}

double GetResidentMib(const std::string& process)
{
   constexpr double kKbPerMib = 1024;
   return FindNumber(ReadText("/proc/" + process + "/status"), "RssAnon") / kKbPerMib;
}

double GetThreadsCpuUs(const std::string& process)
{
   double totalNs = 0;
   for (const auto& thread : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
      totalNs += std::stod(ReadText(thread.path() / "schedstat"));
   }
   return totalNs / 1e3;
}

} // namespace Bench
