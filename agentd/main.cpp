#include "agentd/backend.h"
#include "agentd/collectionMonitor.h"
#include "agentd/configuration.h"
#include "agentd/options.h"
#include "agentd/pluginHost.h"
#include "agentd/stopSignal.h"
#include "agentd/version.h"
#include "console/program.h"
#include "corvax/application.h"
#include "corvax/descriptor.h"
#include "corvax/exception.h"
#include "corvax/lockFile.h"
#include "corvax/system.h"
#include "http/server.h"
#include "managementApi/apiRoutes.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

namespace Agentd {

namespace {

using Corvax::kLogNotice;
using Corvax::Ref;

/// Sets the application object while it lives.
class ApplicationScope {
public:
   explicit ApplicationScope(const Configuration& configuration)
   {
      const Ref<Corvax::LogManager> logManager = Corvax::NewLogManager();
      if (!configuration.logLevel.empty()) {
         logManager->SetDefaultLevel(configuration.logLevel);
      }
      Corvax::Service::SetApp(
         Corvax::NewApplication(logManager, Corvax::NewConfigStore(configuration.keys)));
   }
   ~ApplicationScope() { Corvax::Service::SetApp(nullptr); }
   ApplicationScope(const ApplicationScope&) = delete;
   ApplicationScope& operator=(const ApplicationScope&) = delete;
};

/// Serves the management API while it lives. If it cannot listen, it logs an error, and the agent
/// collects without the API.
class ApiScope {
public:
   ApiScope(const Configuration& configuration, Corvax::Logger* logger)
      : _api(configuration.maxQuerySpecs, logger),
        _server(configuration.httpLimits, ManagementApi::ApiRoutes::FormatError, logger)
   {
      if (configuration.listen == "none") {
         return;
      }
      _api.AddRoutes(_server);
      try {
         const int port = _server.Listen(configuration.listen);
         const std::string host = configuration.listen.substr(0, configuration.listen.rfind(':'));
         logger->Log(kLogNotice, "The management API is served at http://%1:%2", host, port);
      } catch (const Corvax::Exception& e) {
         logger->Log(Corvax::kLogError, "The management API is not served: %1", e.GetMessage());
      }
   }
   ~ApiScope() { _server.Stop(); }
   ApiScope(const ApiScope&) = delete;
   ApiScope& operator=(const ApiScope&) = delete;

   void RefuseRequests() { _server.RefuseRequests(); }

private:
   const ManagementApi::ApiRoutes _api;
   Http::Server _server;
};

/// The agent keeps kernel files of every virtual machine open, so it takes the highest limit that
/// the system allows.
void RaiseDescriptorLimit()
{
   rlimit limit = {};
   if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
   }
}

void Run(const Options& options, const Configuration& configuration)
{
   RaiseDescriptorLimit();
   Corvax::FillDescriptorReserve();
   StopSignal stop;
   const ApplicationScope application(configuration);
   const Ref<Corvax::Logger> logger = Corvax::Service::GetApp()->GetLogger("agentd");
   Corvax::System::GetFactory().CreateDirectory(configuration.stateDir);
   const Corvax::LockFile stateLock(configuration.stateDir + "/agentd.lock");
   const std::unique_ptr<Backend> host =
      NewBackend(configuration.backend, Corvax::Service::GetApp()->GetLogger("Host").Get());

   CollectionMonitor monitor(logger.Get(), stop, options.runs, options.report);
   PluginHost plugin(configuration.pluginFile,
                     [&monitor](const Corvax::TimerRun& run) { monitor.OnRun(run); });
   plugin.Init();
   monitor.Start();
   host->Start();
   plugin.Start();
   ApiScope api(configuration, Corvax::Service::GetApp()->GetLogger("API").Get());
   logger->Log(kLogNotice, "agentd %1 runs with %2, state in %3", kVersion,
               plugin.GetNameAndVersion(), configuration.stateDir);
   while (!stop.Wait(monitor.GetCheckPeriod())) {
      monitor.CheckSilence();
      Corvax::FillDescriptorReserve();
   }
   api.RefuseRequests();
   monitor.Stop();
   plugin.Stop();
   const bool mayDestroy = host->Stop();
   logger->Log(kLogNotice, "agentd has stopped");
   if (!mayDestroy) {
      // The threads of calls that hang go on until the process's end: in the hypervisor's library,
      // or waiting for a file system. Nothing that they use may be destroyed before, and that
      // includes the objects of libraries.
      std::fflush(nullptr);
      std::_Exit(EXIT_SUCCESS);
   }
}

int Main(int argc, char** argv)
{
   Options options;
   if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
      return *status;
   }
   return Console::Run(kProgramName, [&options] {
      const Configuration configuration = LoadConfiguration(options);
      if (options.checkConfig) {
         std::printf("The configuration is valid.\n");
      } else {
         Run(options, configuration);
      }
      return EXIT_SUCCESS;
   });
}

} // namespace

} // namespace Agentd

int main(int argc, char** argv)
{
   return Agentd::Main(argc, argv);
}
