#pragma once

#include "corvax/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

/// A kernel file that is read again and again: opened when it is first read and kept open, which
/// saves the lookup of its path. When reading fails, because its device is gone, the path is opened
/// again, so that a file that comes back under the same name is found.
///
/// Errors: HostCtl::Lib::HostCtlException naming the file and the reason; the next read opens it
/// again.
/// Locking: none; one thread at a time.
class KernelFile {
public:
   explicit KernelFile(std::string path);

   /// The whole text; valid until the next read.
   std::string_view Read();

   /// As Read, but unset when the file does not exist or its device is gone.
   std::optional<std::string_view> ReadIfPresent();

   /// The number that the file contains, decimal or hexadecimal with "0x"; unset when there is no
   /// such file or no number in it.
   std::optional<uint64_t> ReadNumberIfPresent();

   /// Throws the exception for a file that was read but lacks a required figure.
   [[noreturn]] void FailLacking(std::string_view what) const;

private:
   int TryRead();
   int OpenAndReadAll();
   int ReadAll();
   [[noreturn]] void Fail(int errorNumber) const;

   const std::string _path;
   Corvax::Descriptor _descriptor;
   std::vector<char> _buffer;
   size_t _sizeBytes = 0; // of the text in the buffer
};

} // namespace LinuxHost
