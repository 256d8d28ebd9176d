#include "corvax/exception.h"

#include <cstring>
#include <string_view>
#include <system_error>

namespace Corvax {

namespace {

std::string Place(const char* prefix, const char* what, const std::source_location& where)
{
   std::string_view file = where.file_name();
   file.remove_prefix(std::min(file.size(), file.rfind('/') + 1));
   return std::string(prefix) + what + " (" + std::string(file) + ":" +
          std::to_string(where.line()) + ")";
}

} // namespace

Exception::Exception(std::string message) : _message(std::move(message)) {}
Exception::~Exception() = default;

InvalidArgumentException::InvalidArgumentException(std::string message)
   : Exception(std::move(message))
{
}
InvalidArgumentException::~InvalidArgumentException() = default;

FileFormatException::FileFormatException(const std::string& detail)
   : Exception("File Format Exception: " + detail)
{
}
FileFormatException::~FileFormatException() = default;

PlatformException::PlatformException(const std::string& action, int errorNumber)
   : Exception("Cannot " + action + ": " + std::generic_category().message(errorNumber)),
     _errorNumber(errorNumber)
{
}
PlatformException::~PlatformException() = default;

NotFoundException::NotFoundException(std::string message) : Exception(std::move(message)) {}
NotFoundException::~NotFoundException() = default;

OutOfMemoryException::OutOfMemoryException() : Exception("Out of memory") {}
OutOfMemoryException::~OutOfMemoryException() = default;

void OutOfMemoryException::InstallNewHandler()
{
   std::set_new_handler([] { throw OutOfMemoryException(); });
}

AssertionException::AssertionException(std::string message) : Exception(std::move(message)) {}
AssertionException::~AssertionException() = default;

NotReachedException::NotReachedException(std::string message)
   : AssertionException(std::move(message))
{
}
NotReachedException::~NotReachedException() = default;

void FailAssertion(const char* what, const std::source_location& where)
{
   throw AssertionException(Place("Assertion failed: ", what, where));
}

void NotReached(const char* what, const std::source_location& where)
{
   throw NotReachedException(Place("Not reached: ", what, where));
}

} // namespace Corvax
