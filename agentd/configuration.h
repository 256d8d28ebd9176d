#pragma once

#include "agentd/backend.h"
#include "agentd/options.h"
#include "corvax/xmlConfig.h"
#include "http/server.h"

#include <string>

namespace Agentd {

/// The agent's settings, from its configuration file and its command line.
struct Configuration {
   Corvax::Ref<Corvax::XmlConfig> keys; ///< the content of the configuration store
   std::string stateDir;                ///< absolute
   std::string logLevel;                ///< empty: the default
   std::string pluginFile;
   BackendOptions backend;
   std::string listen; ///< address of the management API; "none": do not serve it
   Http::Limits httpLimits;
   size_t maxQuerySpecs = 64; ///< per query
};

/// Reads and checks the configuration file, if one is given, and lets the command line override it.
/// Runtime exceptions name the file and line of an unknown key, a key that is given twice or a
/// value of the wrong kind.
Configuration LoadConfiguration(const Options& options);

} // namespace Agentd
