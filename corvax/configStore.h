#pragma once

#include "corvax/xmlConfig.h"

#include <cstdint>
#include <string>

namespace Corvax {

/// A part of the agent's configuration; keys are relative to it.
class ConfigSection : public virtual Object {
public:
   /// Each returns false, with `value` unchanged, when the key is absent; throws
   /// InvalidArgumentException, naming file, line and key, when its value is of another type.
   virtual bool Get(const std::string& key, std::string& value) const = 0;
   virtual bool Get(const std::string& key, int32_t& value) const = 0;
   virtual bool Get(const std::string& key, bool& value) const = 0;

protected:
   ~ConfigSection() override;
};

/// The agent's configuration, read-only for those that it configures.
class ConfigStore : public ConfigSection {
public:
   /// A section that is absent has no keys.
   virtual Ref<ConfigSection> GetSection(const std::string& path) const = 0;

protected:
   ~ConfigStore() override;
};

Ref<ConfigStore> NewConfigStore(Ref<XmlConfig> config);

} // namespace Corvax
