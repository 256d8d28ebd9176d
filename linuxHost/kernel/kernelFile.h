#pragma once

#include "corvax/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

/// Throws HostCtl::Lib::HostCtlException for a file or directory that cannot be read. It names the
/// limit when the process has too many open.
[[noreturn]] void FailReading(const std::string& path, int errorNumber);

/// A descriptor that stays open between two readings. All of them together are at most the share of
/// Corvax::GetDescriptorShares. Locking: the count is the process's; else one thread at a time.
class KeptDescriptor {
public:
   KeptDescriptor() = default;
   ~KeptDescriptor() { Close(); }
   KeptDescriptor(const KeptDescriptor&) = delete;
   KeptDescriptor& operator=(const KeptDescriptor&) = delete;

   /// Closes the one that it has. If the share is used up, closes this one as well.
   void Keep(Corvax::Descriptor descriptor);
   void Close();

   int Get() const noexcept { return _descriptor.Get(); }
   explicit operator bool() const noexcept { return static_cast<bool>(_descriptor); }

   /// Of the whole process.
   static size_t GetCount();

private:
   Corvax::Descriptor _descriptor;
};

/// A kernel file that is read again and again: opened when it is first read and kept open, which
/// saves the lookup of its path. When reading fails, because its device is gone, the path is opened
/// again, so that a file that comes back under the same name is found. Those that
/// cannot be kept open are opened for each reading, from the reserve if need be.
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

   /// As ReadIfPresent, and unset when this user may not read the file.
   std::optional<std::string_view> ReadIfPermitted();

   /// The number that the file contains, decimal or hexadecimal with "0x"; unset when there is no
   /// such file or no number in it.
   std::optional<uint64_t> ReadNumberIfPresent();

   /// Throws the exception for a file that was read but lacks a required figure.
   [[noreturn]] void FailLacking(std::string_view what) const;

private:
   int TryRead();
   int OpenAndReadAll();
   int ReadAll(int descriptor);

   const std::string _path;
   KeptDescriptor _descriptor;
   std::vector<char> _buffer;
   size_t _sizeBytes = 0; // of the text in the buffer
};

} // namespace LinuxHost
