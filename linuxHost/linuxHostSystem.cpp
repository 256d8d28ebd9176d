#include "linuxHost/linuxHostSystem.h"

#include <unistd.h>

namespace LinuxHost {

namespace {

class LinuxHostSystem : public Quen::HostSystem, public Corvax::ObjectImpl {
public:
   explicit LinuxHostSystem(const std::string& id)
      : _moRef(Corvax::MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), id))
   {
   }

   Plexa::MoRef* GetMoRef() override { return _moRef.Get(); }

   std::string GetName() override
   {
      char name[256] = {};
      return ::gethostname(name, sizeof name - 1) == 0 ? name : _moRef->GetId();
   }

private:
   const Corvax::Ref<Plexa::MoRef> _moRef;
};

} // namespace

Corvax::Ref<Quen::HostSystem> NewLinuxHostSystem(const std::string& id)
{
   return Corvax::MakeRef<LinuxHostSystem>(id);
}

} // namespace LinuxHost
