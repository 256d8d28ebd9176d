#include "agentd/pluginHost.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <dlfcn.h>

namespace Agentd {

namespace {

Corvax::PluginEntry LoadEntry(const std::string& fileName)
{
   // A name without a slash would be searched for among the system's libraries.
   const std::string path = fileName.find('/') == std::string::npos ? "./" + fileName : fileName;
   void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (library == nullptr) {
      throw Corvax::Exception(Corvax::Format("Cannot load plug-in %1: %2", fileName, ::dlerror()));
   }
   void* const entry = ::dlsym(library, Corvax::kPluginEntryName);
   if (entry == nullptr) {
      throw Corvax::Exception(Corvax::Format("%1 is no plug-in: it does not export %2", fileName,
                                             Corvax::kPluginEntryName));
   }
   return reinterpret_cast<Corvax::PluginEntry>(entry);
}

} // namespace

PluginHost::PluginHost(const std::string& fileName,
                       std::function<void(const Corvax::TimerRun&)> observer)
{
   Corvax::Plugin* plugin = nullptr;
   LoadEntry(fileName)(Corvax::kPluginInterfaceMajor, Corvax::kPluginInterfaceMinor, &plugin);
   if (plugin == nullptr) {
      throw Corvax::Exception(Corvax::Format("%1 gave no plug-in", fileName));
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
   constexpr int64_t kPatienceUs = 30 * 1000000;
   _plugin->WaitStop(kPatienceUs);
   _timer->Stop();
}

} // namespace Agentd
