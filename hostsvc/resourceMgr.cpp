#include "hostsvc/resourceMgr.h"

namespace Hostsvc {

ResourceMgr::~ResourceMgr() = default;

} // namespace Hostsvc
