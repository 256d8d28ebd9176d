#pragma once

#include "corvax/object.h"

#include <cstdint>

namespace Corvax {

/// A plug-in as the agent drives it: Init, Start and WaitStop, once each and in this order, then
/// the agent releases it. If Init throws, the plug-in is not started.
class Plugin : public virtual Object {
public:
   virtual const char* GetName() const = 0;
   virtual int GetVerMajor() const = 0;
   virtual int GetVerMinor() const = 0;
   virtual void Init() = 0;
   /// Called on a thread with timers (System::GetThisThread), which the plug-in may use.
   virtual void Start() = 0;
   /// True when the plug-in has stopped.
   virtual bool WaitStop(int64_t timeoutUs) = 0;

protected:
   ~Plugin() override;
};

/// The function that a plug-in's library exports as kPluginEntryName. It stores a new plug-in, with
/// one reference for the caller, in `*plugin`. The two integers are the major and minor version of
/// this interface.
using PluginEntry = void (*)(int, int, Plugin** plugin);

constexpr char kPluginEntryName[] = "CorvaxPluginEntry";
constexpr int kPluginInterfaceMajor = 1;
constexpr int kPluginInterfaceMinor = 0;

} // namespace Corvax
