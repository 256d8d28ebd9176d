#include "agentd/pluginHost.h"

#include "corvax/exception.h"
#include "corvax/sharedLibrary.h"
#include "corvax/system.h"

namespace Agentd {

PluginHost::PluginHost(const std::string& fileName,
                       std::function<void(const Corvax::TimerRun&)> observer)
{
   const Corvax::SharedLibrary library(fileName);
   auto* const entry =
      library.GetFunction<std::remove_pointer_t<Corvax::PluginEntry>>(Corvax::kPluginEntryName);
   Corvax::Plugin* plugin = nullptr;
   entry(Corvax::kPluginInterfaceMajor, Corvax::kPluginInterfaceMinor, &plugin);
   if (plugin == nullptr) {
      throw Corvax::Exception(
         Corvax::Format("%1 of %2 returned no plug-in", Corvax::kPluginEntryName, fileName));
   }
   _plugin = Corvax::Ref<Corvax::Plugin>(plugin);
   plugin->Release(); // the reference that the entry took
   _timer = Corvax::NewTimerThread(_plugin->GetName(), std::move(observer));
}

PluginHost::~PluginHost()
{
   _timer->Stop();
}

std::string PluginHost::GetNameAndVersion() const
{
   return Corvax::Format("%1 %2.%3", _plugin->GetName(), _plugin->GetVerMajor(),
                         _plugin->GetVerMinor());
}

void PluginHost::Start()
{
   Corvax::System::SetThisThread(_timer.Get());
   try {
      _plugin->Start();
   } catch (...) {
      Corvax::System::SetThisThread(nullptr);
      throw;
   }
   Corvax::System::SetThisThread(nullptr);
}

void PluginHost::Stop()
{
   constexpr int64_t kTimeoutUs = 30 * Corvax::kMicrosecondsPerSecond;
   _plugin->WaitStop(kTimeoutUs);
   _timer->Stop();
}

} // namespace Agentd
