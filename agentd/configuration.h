#pragma once

#include "agentd/backend.h"
#include "agentd/options.h"
#include "corvax/xmlConfig.h"
#include "http/server.h"

#include <string>

namespace Agentd {

/// Everything the agent was told, by its configuration file and its command line.
struct Configuration {
   Corvax::Ref<Corvax::XmlConfig> keys; ///< what the configuration store serves
   std::string stateDir;                ///< absolute
   std::string logLevel;                ///< empty: the default
   std::string pluginFile;
   BackendOptions backend;
   std::string listen; ///< of the management API; "none": it is not served
   Http::Limits httpLimits;
   size_t maxQuerySpecs = 64; ///< in one query
};

/// Reads and checks the configuration file, if one is given, and puts the command line over it.
/// Runtime exceptions name file and line of an unknown key, a key that stands twice or a value of
/// the wrong kind.
Configuration LoadConfiguration(const Options& options);

} // namespace Agentd
