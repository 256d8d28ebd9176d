#include "metrix/metrix.h"
#include "metrix/qshCommands.h"

extern "C" __attribute__((visibility("default"))) void
CorvaxPluginEntry(int /*major*/, int /*minor*/, Corvax::Plugin** plugin)
{
   auto created = Corvax::MakeRef<Metrix::MetrixPlugin>();
   created->AddRef(); // the caller's
   *plugin = created.Get();
}

extern "C" __attribute__((visibility("default"))) const QshFramework::PluginDesc*
GetQshPluginEntry()
{
   return Metrix::GetQshPlugin();
}
