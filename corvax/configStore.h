#pragma once

#include "corvax/xmlConfig.h"

#include <cstdint>
#include <string>

namespace Corvax {

/// A section of the agent's configuration; keys are relative to it.
class ConfigSection : public virtual Object {
public:
   /// False, with `value` unchanged, when the key is absent. InvalidArgumentException, naming file,
   /// line and key, when its value is of another type.
   virtual bool Get(const std::string& key, std::string& value) const = 0;
   virtual bool Get(const std::string& key, int32_t& value) const = 0;
   virtual bool Get(const std::string& key, bool& value) const = 0;

protected:
   ~ConfigSection() override;
};

/// The agent's configuration, read-only.
class ConfigStore : public ConfigSection {
public:
   /// An absent section has no keys.
   virtual Ref<ConfigSection> GetSection(const std::string& path) const = 0;

protected:
   ~ConfigStore() override;
};

Ref<ConfigStore> NewConfigStore(Ref<XmlConfig> config);

} // namespace Corvax
