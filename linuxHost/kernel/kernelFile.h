#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

/// A kernel file that is read again and again: opened at the first reading and kept open, which
/// saves looking the path up each time. When the file went away with its device, it is opened anew,
/// so that a file that comes back under the same name is found.
///
/// Errors: HostCtl::Lib::HostCtlException naming the file and the reason; the next reading starts
/// afresh.
/// Locking: none; one thread at a time.
class KernelFile {
public:
   explicit KernelFile(std::string path);
   ~KernelFile();
   KernelFile(const KernelFile&) = delete;
   KernelFile& operator=(const KernelFile&) = delete;

   /// The whole text; valid until the next reading.
   std::string_view Read();

   /// As Read, but nothing when there is no such file or its device is gone.
   std::optional<std::string_view> ReadIfPresent();

   /// What an exception says of a file that was read but does not hold what it must.
   [[noreturn]] void FailLacking(std::string_view what) const;

private:
   int TryRead();
   int OpenAndReadAll();
   int ReadAll();
   void Close();
   [[noreturn]] void Fail(int errorNumber) const;

   const std::string _path;
   int _descriptor = -1;
   std::vector<char> _buffer;
   size_t _sizeBytes = 0; // of the text in the buffer
};

} // namespace LinuxHost
