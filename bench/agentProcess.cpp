#include "bench/agentProcess.h"

#include "corvax/exception.h"
#include "corvax/thread.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Bench {

namespace {

[[noreturn]] void Fail(const std::string& reason)
{
   throw Corvax::Exception("Cannot measure the agent: " + reason);
}

} // namespace

AgentProcess::AgentProcess(const std::string& program, const std::string& stateDirectory,
                           const std::vector<std::string>& arguments)
{
   std::vector<std::string> all = {program, "--state-dir", stateDirectory, "--listen",
                                   "127.0.0.1:0"};
   all.insert(all.end(), arguments.begin(), arguments.end());
   std::vector<char*> pointers;
   pointers.reserve(all.size() + 1);
   for (std::string& argument : all) {
      pointers.push_back(argument.data());
   }
   pointers.push_back(nullptr);

   int ends[2];
   if (::pipe2(ends, O_CLOEXEC) != 0) {
      Fail("there is no pipe for its log");
   }
   _log = Corvax::Descriptor(ends[0]);
   const Corvax::Descriptor writeEnd(ends[1]);
   posix_spawn_file_actions_t actions;
   ::posix_spawn_file_actions_init(&actions);
   ::posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDERR_FILENO);
   const int error =
      ::posix_spawn(&_process, program.c_str(), &actions, nullptr, pointers.data(), environ);
   ::posix_spawn_file_actions_destroy(&actions);
   if (error != 0) {
      Fail(program + " cannot be started: " + std::strerror(error));
   }
}

AgentProcess::~AgentProcess()
{
   ::kill(_process, SIGTERM);
   ::waitpid(_process, nullptr, 0);
}

/// Empty once the agent has ended.
std::string AgentProcess::ReadLog()
{
   char buffer[4096];
   const ssize_t size = ::read(_log.Get(), buffer, sizeof buffer);
   return {buffer, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

int AgentProcess::WaitForPort()
{
   const std::string kServed = "is served at http://127.0.0.1:";
   std::string log;
   size_t place = log.npos;
   while (place == log.npos || log.find('\n', place) == log.npos) {
      const std::string more = ReadLog();
      if (more.empty()) {
         Fail("it ended: " + log);
      }
      log += more;
      place = log.find(kServed);
   }
   _logReader = Corvax::StartThread("log", [this](const std::stop_token&) {
      while (!ReadLog().empty()) {
      }
   });
   return std::stoi(log.substr(place + kServed.size()));
}

} // namespace Bench
