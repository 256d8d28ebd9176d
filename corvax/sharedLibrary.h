#pragma once

#include <string>

namespace Corvax {

/// A shared library loaded into the process. It is never unloaded: objects of its classes may
/// outlive every handle.
class SharedLibrary {
public:
   /// A file name without a slash is looked for in the current directory, not among the system's
   /// libraries. Exception, naming the file and the loader's reason, when it cannot be loaded.
   explicit SharedLibrary(const std::string& fileName);

   /// The function that the library exports under this name; Exception when it exports none.
   template <class Function>
   Function* GetFunction(const char* name) const
   {
      return reinterpret_cast<Function*>(GetAddress(name));
   }

private:
   void* GetAddress(const char* name) const;

   const std::string _fileName;
   void* _handle;
};

} // namespace Corvax
