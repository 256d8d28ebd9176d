#pragma once

#include "corvax/channel.h"
#include "corvax/configStore.h"
#include "corvax/logger.h"
#include "corvax/objectRegistry.h"

#include <string>

namespace Corvax {

/// The services that the agent offers to its parts and plug-ins.
class Application : public virtual Object {
public:
   virtual LogManager* GetLogManager() = 0;
   virtual ConfigStore* GetConfigStore() = 0;
   virtual ObjectRegistry* GetObjectRegistry() = 0;
   virtual MessageChannels* GetChannels() = 0;

   Ref<Logger> GetLogger(const std::string& name) { return GetLogManager()->GetLogger(name); }

   Ref<ChannelReader> Subscribe(const std::string& path, Ref<ChannelHandler> handler)
   {
      return GetChannels()->Subscribe(path, std::move(handler));
   }

protected:
   ~Application() override;
};

Ref<Application> NewApplication(Ref<LogManager> logManager, Ref<ConfigStore> configStore);

namespace Service {

/// The process's application object; AssertionException when there is none.
Application* GetApp();

/// Replaces it, null for none. Not while other threads use it.
void SetApp(Ref<Application> application);

} // namespace Service

} // namespace Corvax
