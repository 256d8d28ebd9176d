#pragma once

#include <exception>
#include <new>
#include <source_location>
#include <string>

namespace Corvax {

/// Root of the runtime's exception family: everything that the agent expects to fail, failed
/// assertions and platform failures included, arrives as one of these.
class Exception : public std::exception {
public:
   explicit Exception(std::string message);
   ~Exception() override;

   const std::string& GetMessage() const noexcept { return _message; }
   const char* what() const noexcept override { return _message.c_str(); }

private:
   std::string _message;
};

/// A caller's argument is refused. The text is "Invalid argument" unless another is given.
class InvalidArgumentException : public Exception {
public:
   explicit InvalidArgumentException(std::string message = "Invalid argument");
   ~InvalidArgumentException() override;
};

/// A file is damaged or of another format. The text is "File Format Exception: " + detail.
class FileFormatException : public Exception {
public:
   explicit FileFormatException(const std::string& detail);
   ~FileFormatException() override;
};

/// The operating system refused an operation.
class PlatformException : public Exception {
public:
   /// `action` completes "Cannot ...": "open FILE for reading". `errorNumber` is an errno.
   PlatformException(const std::string& action, int errorNumber);
   ~PlatformException() override;

   int GetErrorNumber() const noexcept { return _errorNumber; }

private:
   int _errorNumber;
};

/// A key, object or service that must exist does not.
class NotFoundException : public Exception {
public:
   explicit NotFoundException(std::string message);
   ~NotFoundException() override;
};

/// Out of memory. Derives from std::bad_alloc as well, so that operator new may throw it. Catch it
/// as one of its two bases: std::exception is ambiguous.
class OutOfMemoryException : public Exception, public std::bad_alloc {
public:
   OutOfMemoryException();
   ~OutOfMemoryException() override;
   const char* what() const noexcept override { return Exception::what(); }

   /// Makes operator new throw this exception, process-wide.
   static void InstallNewHandler();
};

/// A programming error: stops the operation, never the process.
class AssertionException : public Exception {
public:
   explicit AssertionException(std::string message);
   ~AssertionException() override;
};

/// Control reached a place that it must not reach.
class NotReachedException : public AssertionException {
public:
   explicit NotReachedException(std::string message);
   ~NotReachedException() override;
};

[[noreturn]] void FailAssertion(const char* what, const std::source_location& where);

/// Throws AssertionException with the text of `what` (the condition that must hold) and the
/// caller's file and line unless `condition` is true.
inline void Assert(bool condition, const char* what,
                   const std::source_location& where = std::source_location::current())
{
   if (!condition) [[unlikely]] {
      FailAssertion(what, where);
   }
}

[[noreturn]] void NotReached(const char* what,
                             const std::source_location& where = std::source_location::current());

} // namespace Corvax
