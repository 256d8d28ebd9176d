#pragma once

#include "corvax/logger.h"
#include "metrix/journalFormat.h"

#include <array>
#include <string>
#include <vector>

namespace Metrix {

/// Path of one of the two journal files of a depot; `prefix` is its directory and name.
inline std::string GetJournalFileName(const std::string& prefix, size_t index)
{
   return prefix + ".journal." + std::to_string(index);
}

constexpr size_t kJournalFiles = 2;

/// The content of a depot's journal files, read into memory and checked.
class JournalReader {
public:
   enum class State {
      NONE,       ///< no file, or none with a whole snapshot
      WHOLE,      ///< nothing shows that a record is missing
      TORN,       ///< the last write was cut short, as a crash does it
      DAMAGED,    ///< records are missing that had been synced
      UNREADABLE, ///< the disk fails, or the header is of another version
   };

   /// Reads the files and changes nothing. A missing file counts as one without records.
   /// PlatformException if a file cannot be read for a reason other than a failure of the disk.
   void Read(const std::string& prefix);

   State GetState() const { return _state; }
   /// What is wrong if it is TORN, DAMAGED or UNREADABLE, with file and offset.
   const std::string& GetDetail() const { return _detail; }

   // If there is a journal, whatever its state:
   uint64_t GetGeneration() const { return _generation; }
   /// Number of the file, 0 or 1.
   size_t GetFileIndex() const { return _fileIndex; }
   uint64_t GetLastSequence() const { return _lastSequence; }
   bool HasRecords() const { return !_payloads.empty() || _state == State::WHOLE; }
   const std::vector<JournalFormat::StoreShape>& GetStores() const { return _stores; }
   /// Encoded entries, the snapshot's first, then those of each commit. They point into the reader.
   const std::vector<std::span<const std::byte>>& GetPayloads() const { return _payloads; }
   /// The highest generation of a whole record in either file.
   uint64_t GetHighestGeneration() const { return _highestGeneration; }

private:
   struct Found;

   Found Scan(const std::string& fileName, std::span<const std::byte> bytes) const;

   std::array<std::vector<std::byte>, kJournalFiles> _bytes;
   State _state = State::NONE;
   std::string _detail;
   uint64_t _generation = 0;
   uint64_t _highestGeneration = 0;
   size_t _fileIndex = 0;
   uint64_t _lastSequence = 0;
   std::vector<JournalFormat::StoreShape> _stores;
   std::vector<std::span<const std::byte>> _payloads;
};

} // namespace Metrix
