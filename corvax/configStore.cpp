#include "corvax/configStore.h"

namespace Corvax {

namespace {

class ConfigStoreImpl : public ConfigStore, public ObjectImpl {
public:
   ConfigStoreImpl(Ref<XmlConfig> config, std::string prefix)
      : _config(std::move(config)), _prefix(std::move(prefix))
   {
   }

   bool Get(const std::string& key, std::string& value) const override
   {
      return _config->Get(_prefix + key, value);
   }
   bool Get(const std::string& key, int32_t& value) const override
   {
      return _config->Get(_prefix + key, value);
   }
   bool Get(const std::string& key, bool& value) const override
   {
      return _config->Get(_prefix + key, value);
   }

   Ref<ConfigSection> GetSection(const std::string& path) const override
   {
      return MakeRef<ConfigStoreImpl>(_config, _prefix + path + "/");
   }

private:
   const Ref<XmlConfig> _config;
   const std::string _prefix;
};

} // namespace

ConfigSection::~ConfigSection() = default;
ConfigStore::~ConfigStore() = default;

Ref<ConfigStore> NewConfigStore(Ref<XmlConfig> config)
{
   return MakeRef<ConfigStoreImpl>(std::move(config), "");
}

} // namespace Corvax
