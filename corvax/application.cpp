#include "corvax/application.h"

namespace Corvax {

namespace {

class ApplicationImpl : public Application, public ObjectImpl {
public:
   ApplicationImpl(Ref<LogManager> logManager, Ref<ConfigStore> configStore)
      : _logManager(std::move(logManager)), _configStore(std::move(configStore)),
        _objectRegistry(NewObjectRegistry()),
        _channels(NewMessageChannels(_logManager->GetLogger("Channels")))
   {
   }

   LogManager* GetLogManager() override { return _logManager.Get(); }
   ConfigStore* GetConfigStore() override { return _configStore.Get(); }
   ObjectRegistry* GetObjectRegistry() override { return _objectRegistry.Get(); }
   MessageChannels* GetChannels() override { return _channels.Get(); }

private:
   const Ref<LogManager> _logManager;
   const Ref<ConfigStore> _configStore;
   const Ref<ObjectRegistry> _objectRegistry;
   const Ref<MessageChannels> _channels;
};

Ref<Application>& TheApp()
{
   static Ref<Application> app;
   return app;
}

} // namespace

Application::~Application() = default;

Ref<Application> NewApplication(Ref<LogManager> logManager, Ref<ConfigStore> configStore)
{
   return MakeRef<ApplicationImpl>(std::move(logManager), std::move(configStore));
}

namespace Service {

Application* GetApp()
{
   Assert(static_cast<bool>(TheApp()), "the application object exists");
   return TheApp().Get();
}

void SetApp(Ref<Application> application)
{
   TheApp() = std::move(application);
}

} // namespace Service

} // namespace Corvax
