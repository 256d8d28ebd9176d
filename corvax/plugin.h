#pragma once

#include "corvax/object.h"

#include <cstdint>

namespace Corvax {

/// What the agent drives of a plug-in: Init, Start, WaitStop, each once and in this order, then the
/// plug-in is released. An exception out of Init means that the plug-in is not started.
class Plugin : public virtual Object {
public:
   virtual const char* GetName() const = 0;
   virtual int GetVerMajor() const = 0;
   virtual int GetVerMinor() const = 0;
   virtual void Init() = 0;
   /// Called on a thread with a timer facility, which the plug-in may use for its own schedule.
   virtual void Start() = 0;
   /// True when the plug-in has stopped.
   virtual bool WaitStop(int64_t timeoutUs) = 0;

protected:
   ~Plugin() override;
};

/// The entry that a plug-in's library exports under kPluginEntryName: puts a plug-in, with one
/// reference taken for the caller, into `*plugin`. The agent passes the version of this interface
/// as the two integers, major and minor.
using PluginEntry = void (*)(int, int, Plugin** plugin);

constexpr char kPluginEntryName[] = "CorvaxPluginEntry";
constexpr int kPluginInterfaceMajor = 1;
constexpr int kPluginInterfaceMinor = 0;

} // namespace Corvax
