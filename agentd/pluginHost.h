#pragma once

#include "corvax/logger.h"
#include "corvax/plugin.h"
#include "corvax/scheduler.h"

#include <functional>
#include <string>

namespace Agentd {

/// A loaded plug-in with a timer thread of its own, on which everything that it schedules runs.
class PluginHost {
public:
   /// Loads the library and takes the plug-in from its entry; Exception, naming the file and the
   /// reason, if either fails. `observer` is called on the timer thread after each run.
   PluginHost(const std::string& fileName, std::function<void(const Corvax::TimerRun&)> observer);
   ~PluginHost();
   PluginHost(const PluginHost&) = delete;
   PluginHost& operator=(const PluginHost&) = delete;

   std::string GetNameAndVersion() const;

   void Init() { _plugin->Init(); }
   void Start();
   /// Waits for a run in progress.
   void Stop();

private:
   Corvax::Ref<Corvax::Plugin> _plugin;
   Corvax::Ref<Corvax::TimerThread> _timer;
};

} // namespace Agentd
