#include "agentd/configuration.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/logger.h"
#include "corvax/program.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace Agentd {

namespace {

using Corvax::Format;
using Corvax::InvalidArgumentException;
using Corvax::XmlConfig;

constexpr char kDefaultStateDir[] = "/var/lib/quorra/agentd";
constexpr char kPluginFileName[] = "libmetrix.so";
constexpr char kHypervisorFileName[] = "libhykvirt.so";
constexpr char kDefaultLibvirtUri[] = "qemu:///system";
constexpr char kDefaultBackend[] = "auto";

constexpr char kInterval[] = "plugins/metrix/collectionInterval";
constexpr char kMockup[] = "plugins/metrix/enableMockup";
constexpr char kDepotDir[] = "plugins/metrix/depotDir";
constexpr char kWideFigures[] = "plugins/metrix/wideFigures";
constexpr char kCheckpoint[] = "plugins/metrix/checkpointSec";
constexpr char kSync[] = "plugins/metrix/syncSec";
constexpr char kDefaultCheckpointSec[] = "300";
constexpr char kDefaultSyncSec[] = "1"; // every run
constexpr char kCpuMhz[] = "agentd/cpuMhz";
constexpr char kBackend[] = "agentd/backend";
constexpr char kSimulation[] = "agentd/simulation";
constexpr char kListen[] = "agentd/http/listen";
constexpr char kDefaultListen[] = "127.0.0.1:8697";
constexpr char kNic[] = "agentd/nics/nic";

enum class ValueKind {
   TEXT,
   DIRECTORY,
   FILE_NAME,
   NOT_NEGATIVE,
   POSITIVE,
   INTERVAL,
   BOOLEAN,
   LOG_LEVEL
};

struct KeyRule {
   std::string_view path;
   ValueKind kind;
};

constexpr KeyRule kKeyRules[] = {
   {"agentd/stateDir", ValueKind::TEXT},
   {"agentd/logLevel", ValueKind::LOG_LEVEL},
   {"agentd/plugin", ValueKind::TEXT},
   {kCpuMhz, ValueKind::POSITIVE},
   {kBackend, ValueKind::TEXT},
   {kSimulation, ValueKind::TEXT},
   {"agentd/libvirtUri", ValueKind::TEXT},
   {kListen, ValueKind::TEXT},
   {"agentd/http/workers", ValueKind::POSITIVE},
   {"agentd/http/maxConnections", ValueKind::POSITIVE},
   {"agentd/http/maxBodyBytes", ValueKind::POSITIVE},
   {"agentd/http/maxQuerySpecs", ValueKind::POSITIVE},
   {"agentd/http/requestTimeoutSec", ValueKind::POSITIVE},
   {kNic, ValueKind::TEXT}, // may be repeated
   {"plugins/metrix/logLevelTemp", ValueKind::LOG_LEVEL},
   {kInterval, ValueKind::INTERVAL},
   {kMockup, ValueKind::BOOLEAN},
   {kDepotDir, ValueKind::DIRECTORY},
   {"plugins/metrix/depotName", ValueKind::FILE_NAME},
   {"plugins/metrix/maxStatsPurged", ValueKind::NOT_NEGATIVE},
   {kWideFigures, ValueKind::BOOLEAN},
   {kCheckpoint, ValueKind::NOT_NEGATIVE},
   {kSync, ValueKind::NOT_NEGATIVE},
};

void CheckInteger(const XmlConfig& config, const std::string& where, const XmlConfig::Key& key,
                  ValueKind kind)
{
   int32_t value = 0;
   config.Get(key.path, value);
   const int least = kind == ValueKind::NOT_NEGATIVE ? 0 : 1;
   if (kind == ValueKind::INTERVAL && !IsCollectionInterval(value)) {
      throw InvalidArgumentException(
         Format("%1: '%2' does not divide 300 seconds, as %3 must", where, value, key.path));
   }
   if (value < least) {
      throw InvalidArgumentException(Format("%1: %2 is below %3", where, key.path, least));
   }
}

void CheckText(const std::string& where, const XmlConfig::Key& key, ValueKind kind)
{
   if (key.value.empty()) {
      throw InvalidArgumentException(Format("%1: %2 is empty", where, key.path));
   }
   if (kind == ValueKind::FILE_NAME && key.value.find('/') != std::string::npos) {
      throw InvalidArgumentException(
         Format("%1: '%2' has a \"/\", which %3 may not have", where, key.value, key.path));
   }
   // File names are appended to it as it is, and the depot keeps the paths for later starts.
   if (kind == ValueKind::DIRECTORY && (!key.value.starts_with('/') || !key.value.ends_with('/'))) {
      throw InvalidArgumentException(Format(
         "%1: '%2' does not start and end with \"/\", as %3 must", where, key.value, key.path));
   }
}

void CheckValue(const XmlConfig& config, const std::string& where, const XmlConfig::Key& key,
                ValueKind kind)
{
   bool boolean = false;
   int level = 0;
   switch (kind) {
   case ValueKind::NOT_NEGATIVE:
   case ValueKind::POSITIVE:
   case ValueKind::INTERVAL:
      CheckInteger(config, where, key, kind);
      break;
   case ValueKind::BOOLEAN:
      config.Get(key.path, boolean);
      break;
   case ValueKind::LOG_LEVEL:
      if (!Corvax::ParseLogLevel(key.value, level)) {
         throw InvalidArgumentException(
            Format("%1: '%2' is not a log level, which %3 must be; use error, warning, notice, "
                   "info, debug or 0 to 7",
                   where, key.value, key.path));
      }
      break;
   case ValueKind::TEXT:
   case ValueKind::DIRECTORY:
   case ValueKind::FILE_NAME:
      CheckText(where, key, kind);
      break;
   }
}

void CheckKeys(const XmlConfig& config, const std::string& fileName)
{
   std::set<std::string> seen;
   for (const XmlConfig::Key& key : config.GetKeys()) {
      const std::string where = Format("%1:%2", fileName, key.line);
      const auto rule = std::ranges::find(kKeyRules, key.path, &KeyRule::path);
      if (rule == std::end(kKeyRules)) {
         // A section may be empty.
         const bool isSection = std::ranges::any_of(kKeyRules, [&key](const KeyRule& known) {
            return known.path.starts_with(key.path + "/");
         });
         if (isSection && key.value.empty()) {
            continue;
         }
         throw InvalidArgumentException(Format("%1: unknown key %2", where, key.path));
      }
      if (!seen.insert(key.path).second && key.path != kNic) {
         throw InvalidArgumentException(Format("%1: %2 is given twice", where, key.path));
      }
      CheckValue(config, where, key, rule->kind);
   }
}

/// A library that is installed with this program.
std::string InstalledLibrary(const char* fileName)
{
   return Corvax::GetInstallPrefix() + "/lib/" + fileName;
}

std::vector<std::string> ReadNics(const XmlConfig& config)
{
   std::vector<std::string> elements;
   std::vector<std::string> nics;
   config.GetChildren("agentd/nics", "nic", elements);
   for (const std::string& element : elements) {
      config.Get("agentd/nics/" + element, nics.emplace_back());
   }
   return nics;
}

/// CheckKeys has refused values below 1.
int32_t ReadPositive(const XmlConfig& config, const std::string& path, int32_t defaultValue)
{
   int32_t value = defaultValue;
   config.Get(path, value);
   return value;
}

void ReadHttp(const XmlConfig& config, Configuration& configuration)
{
   configuration.listen = kDefaultListen;
   config.Get(kListen, configuration.listen);
   const auto read = [&config](const char* key, auto defaultValue) {
      return ReadPositive(config, std::string("agentd/http/") + key,
                          static_cast<int32_t>(defaultValue));
   };
   Http::Limits& limits = configuration.httpLimits;
   limits.workers = read("workers", limits.workers);
   limits.maxConnections = read("maxConnections", limits.maxConnections);
   limits.maxBodyBytes = static_cast<size_t>(read("maxBodyBytes", limits.maxBodyBytes));
   configuration.maxQuerySpecs =
      static_cast<size_t>(read("maxQuerySpecs", configuration.maxQuerySpecs));
   limits.requestTimeout = std::chrono::seconds(
      read("requestTimeoutSec",
           std::chrono::duration_cast<std::chrono::seconds>(limits.requestTimeout).count()));
}

BackendOptions::Kind ParseBackend(const std::string& name)
{
   if (name == kDefaultBackend) {
      return BackendOptions::Kind::AUTO;
   }
   if (name == "linux") {
      return BackendOptions::Kind::MACHINE;
   }
   if (name == "simulated") {
      return BackendOptions::Kind::SIMULATED;
   }
   throw InvalidArgumentException(
      Format("'%1' is not a backend; use auto, linux or simulated", name));
}

BackendOptions ReadBackend(const XmlConfig& keys, const Options& options)
{
   BackendOptions backend;
   std::string name = kDefaultBackend;
   std::string simulation;
   keys.Get(kBackend, name);
   keys.Get(kSimulation, simulation);
   backend.kind = ParseBackend(options.backend.value_or(name));
   if (options.simulation && backend.kind != BackendOptions::Kind::SIMULATED) {
      throw InvalidArgumentException("--sim needs --backend simulated");
   }
   backend.simulation = SimHost::ParseSimOptions(options.simulation.value_or(simulation));
   backend.machine.nics = ReadNics(keys);
   backend.machine.cpuMhz = static_cast<uint32_t>(ReadPositive(keys, kCpuMhz, 0));
   backend.hypervisorModule = InstalledLibrary(kHypervisorFileName);
   backend.libvirtUri = kDefaultLibvirtUri;
   keys.Get("agentd/libvirtUri", backend.libvirtUri);
   keys.Get(kInterval, backend.intervalSec);
   return backend;
}

void SetDefault(XmlConfig& keys, const char* path, const char* value)
{
   std::string configured;
   if (!keys.Get(path, configured)) {
      keys.Set(path, value);
   }
}

} // namespace

Configuration LoadConfiguration(const Options& options)
{
   Configuration configuration;
   Corvax::GetXmlConfig(options.configFile, configuration.keys);
   XmlConfig& keys = *configuration.keys;
   if (!options.configFile.empty()) {
      keys.Read();
      CheckKeys(keys, options.configFile);
   }

   configuration.stateDir = kDefaultStateDir;
   configuration.pluginFile = InstalledLibrary(kPluginFileName);
   keys.Get("agentd/stateDir", configuration.stateDir);
   keys.Get("agentd/logLevel", configuration.logLevel);
   keys.Get("agentd/plugin", configuration.pluginFile);
   ReadHttp(keys, configuration);

   configuration.stateDir = options.stateDir.value_or(configuration.stateDir);
   configuration.pluginFile = options.pluginFile.value_or(configuration.pluginFile);
   configuration.listen = options.listen.value_or(configuration.listen);
   // Absolute, because the depot's description keeps paths, and the next start may be elsewhere.
   configuration.stateDir = std::filesystem::absolute(configuration.stateDir).lexically_normal();
   std::string depotDir;
   if (options.stateDir || !keys.Get(kDepotDir, depotDir)) {
      keys.Set(kDepotDir, (std::filesystem::path(configuration.stateDir) / "stats" / "").string());
   }
   if (options.intervalSec) {
      keys.Set(kInterval, std::to_string(*options.intervalSec));
   }
   if (options.mockup) {
      keys.Set(kMockup, "true");
   }
   SetDefault(keys, kWideFigures, "true");
   SetDefault(keys, kCheckpoint, kDefaultCheckpointSec);
   SetDefault(keys, kSync, kDefaultSyncSec);
   configuration.backend = ReadBackend(keys, options);
   return configuration;
}

} // namespace Agentd
