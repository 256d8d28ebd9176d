#pragma once

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "tests/fakes/captureLogger.h"

#include <string>
#include <utility>

/// The agent around a test: a configuration, one logger for all names, registry and channels.
class FakeAgent {
public:
   FakeAgent()
   {
      Corvax::GetXmlConfig("", config);
      Corvax::Service::SetApp(Corvax::NewApplication(Corvax::MakeRef<OneLogger>(logger),
                                                     Corvax::NewConfigStore(config)));
   }
   ~FakeAgent() { Corvax::Service::SetApp(nullptr); }
   FakeAgent(const FakeAgent&) = delete;
   FakeAgent& operator=(const FakeAgent&) = delete;

   void Register(const std::string& id, Corvax::Ref<Corvax::Object> object)
   {
      Corvax::Service::GetApp()->GetObjectRegistry()->Register(id, std::move(object));
   }
   void Unregister(const std::string& id)
   {
      Corvax::Service::GetApp()->GetObjectRegistry()->Unregister(id);
   }
   void Publish(const std::string& path, Corvax::Ref<Corvax::Object> message)
   {
      Corvax::MessageChannels* const channels = Corvax::Service::GetApp()->GetChannels();
      channels->Publish(path, std::move(message));
      channels->Drain();
   }

   const Corvax::Ref<CaptureLogger> logger = Corvax::MakeRef<CaptureLogger>();
   Corvax::Ref<Corvax::XmlConfig> config;

private:
   struct OneLogger : Corvax::LogManager, Corvax::ObjectImpl {
      explicit OneLogger(Corvax::Ref<CaptureLogger> one) : logger(std::move(one)) {}
      Corvax::Ref<Corvax::Logger> GetLogger(const std::string& /*name*/) override { return logger; }
      void SetDefaultLevel(const std::string& /*levelName*/) override {}
      const Corvax::Ref<CaptureLogger> logger;
   };
};
