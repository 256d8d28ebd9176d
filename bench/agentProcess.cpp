#include "bench/agentProcess.h"

#include "corvax/exception.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace Bench {

namespace {

[[noreturn]] void Fail(const std::string& reason)
{
   throw Corvax::Exception("The agent to be measured: " + reason);
}

} // namespace

AgentProcess::AgentProcess(const std::string& program, const std::string& stateDirectory,
                           const std::vector<std::string>& arguments)
{
   std::vector<std::string> all = {program, "--state-dir", stateDirectory, "--listen",
                                   "127.0.0.1:0"};
   all.insert(all.end(), arguments.begin(), arguments.end());
   std::vector<char*> pointers;
   for (std::string& argument : all) {
      pointers.push_back(argument.data());
   }
   pointers.push_back(nullptr);

   int ends[2];
   if (::pipe2(ends, O_CLOEXEC) != 0) {
      Fail("no pipe for its log");
   }
   _log = ends[0];
   posix_spawn_file_actions_t actions;
   ::posix_spawn_file_actions_init(&actions);
   ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
   const int error =
      ::posix_spawn(&_process, program.c_str(), &actions, nullptr, pointers.data(), environ);
   ::posix_spawn_file_actions_destroy(&actions);
   ::close(ends[1]);
   if (error != 0) {
      ::close(_log);
      Fail("cannot start " + program);
   }
}

AgentProcess::~AgentProcess()
{
   ::kill(_process, SIGTERM);
   ::waitpid(_process, nullptr, 0);
   ::close(_log);
}

int AgentProcess::WaitForPort()
{
   const std::string kServed = "is served at http://127.0.0.1:";
   std::string log;
   char buffer[4096];
   while (true) {
      const size_t place = log.find(kServed);
      if (place != log.npos && log.find('\n', place) != log.npos) {
         return std::stoi(log.substr(place + kServed.size()));
      }
      const ssize_t size = ::read(_log, buffer, sizeof buffer);
      if (size <= 0) {
         Fail("it has ended: " + log);
      }
      log.append(buffer, static_cast<size_t>(size));
   }
}

double AgentProcess::GetResidentMib() const
{
   std::ifstream status("/proc/" + GetId() + "/status");
   std::string name;
   double kilobytes = 0;
   while (status >> name) {
      if (name == "RssAnon:") {
         status >> kilobytes;
         return kilobytes / 1024;
      }
   }
   Fail("the kernel does not tell its memory");
}

double AgentProcess::GetCpuUs() const
{
   double totalNs = 0;
   for (const auto& thread : std::filesystem::directory_iterator("/proc/" + GetId() + "/task")) {
      double onCpuNs = 0;
      if (!(std::ifstream(thread.path() / "schedstat") >> onCpuNs)) {
         Fail("the kernel does not tell its CPU time");
      }
      totalNs += onCpuNs;
   }
   return totalNs / 1e3;
}

} // namespace Bench
