#include "corvax/sharedLibrary.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <dlfcn.h>

namespace Corvax {

SharedLibrary::SharedLibrary(const std::string& fileName) : _fileName(fileName)
{
   const bool hasDirectory = fileName.find('/') != std::string::npos;
   _handle = ::dlopen((hasDirectory ? fileName : "./" + fileName).c_str(), RTLD_NOW | RTLD_LOCAL);
   if (_handle == nullptr) {
      throw Exception(Format("Cannot load %1: %2", fileName, ::dlerror()));
   }
}

void* SharedLibrary::GetAddress(const char* name) const
{
   void* const address = ::dlsym(_handle, name);
   if (address == nullptr) {
      throw Exception(Format("%1 does not export %2", _fileName, name));
   }
   return address;
}

} // namespace Corvax
