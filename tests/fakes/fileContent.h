#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// The bytes of a file, in pages that copies share.
class FileContent {
public:
   uint64_t GetSize() const { return _size; }
   void Resize(uint64_t sizeBytes);
   void Write(uint64_t offset, std::string_view bytes);
   /// The bytes from there on, fewer at the end.
   std::string Read(uint64_t offset, size_t sizeBytes) const;

private:
   static constexpr size_t kPageBytes = 4096;

   std::string& GetPage(size_t page);

   std::vector<std::shared_ptr<std::string>> _pages; ///< null: zero bytes
   uint64_t _size = 0;
};

inline void FileContent::Resize(uint64_t sizeBytes)
{
   const size_t inLastPage = sizeBytes % kPageBytes;
   if (sizeBytes < _size && inLastPage != 0) {
      std::string& page = GetPage(sizeBytes / kPageBytes);
      std::fill(page.begin() + static_cast<ptrdiff_t>(inLastPage), page.end(), '\0');
   }
   _pages.resize((sizeBytes + kPageBytes - 1) / kPageBytes);
   _size = sizeBytes;
}

/// A page of its own, to be changed.
inline std::string& FileContent::GetPage(size_t page)
{
   std::shared_ptr<std::string>& bytes = _pages[page];
   if (!bytes || bytes.use_count() > 1) {
      bytes = std::make_shared<std::string>(bytes ? *bytes : std::string(kPageBytes, '\0'));
   }
   return *bytes;
}

inline void FileContent::Write(uint64_t offset, std::string_view bytes)
{
   Resize(std::max(_size, offset + bytes.size()));
   while (!bytes.empty()) {
      const size_t start = offset % kPageBytes;
      const size_t count = std::min(bytes.size(), kPageBytes - start);
      bytes.copy(&GetPage(offset / kPageBytes)[start], count);
      bytes.remove_prefix(count);
      offset += count;
   }
}

inline std::string FileContent::Read(uint64_t offset, size_t sizeBytes) const
{
   std::string bytes(offset < _size ? std::min<size_t>(sizeBytes, _size - offset) : 0, '\0');
   for (size_t done = 0; done < bytes.size();) {
      const uint64_t pos = offset + done;
      const size_t start = pos % kPageBytes;
      const size_t count = std::min(bytes.size() - done, kPageBytes - start);
      if (const auto& page = _pages[pos / kPageBytes]) {
         page->copy(&bytes[done], count, start);
      }
      done += count;
   }
   return bytes;
}
