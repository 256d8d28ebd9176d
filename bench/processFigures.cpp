#include "bench/processFigures.h"

#include "corvax/exception.h"
#include "linuxHost/kernel/kernelFile.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <sstream>

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
           FindNumber(text, "rchar") + FindNumber(text, "wchar"),
           FindNumber(text, "write_bytes") - FindNumber(text, "cancelled_write_bytes")};
}

double GetDeviceBytes(const std::string& directory)
{
   constexpr int kFieldsBefore = 6; // of the sectors written
   constexpr double kSectorBytes = 512;
   struct stat info = {};
   if (::stat(directory.c_str(), &info) != 0) {
      throw Corvax::Exception("There is no directory " + directory);
   }
   std::istringstream fields(ReadText("/sys/dev/block/" + std::to_string(major(info.st_dev)) + ":" +
                                      std::to_string(minor(info.st_dev)) + "/stat"));
   double value = 0;
   for (int i = 0; i <= kFieldsBefore; ++i) {
      fields >> value;
   }
   return value * kSectorBytes;
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
