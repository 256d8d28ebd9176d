#pragma once

#include "corvax/file.h"
#include "corvax/logger.h"
#include "metrix/journalEntries.h"
#include "metrix/journalFormat.h"
#include "metrix/journalReader.h"

#include <array>
#include <atomic>
#include <memory>
#include <string>

namespace Metrix {

/// Writes a depot's journal: two files in turn, each of which begins with a snapshot of everything
/// that the depot's other files do not have for certain, followed by a record per commit.
///
/// Files are allocated ahead, so that a full disk does not stop commits.
/// Errors: PlatformException if the file system fails; nothing of the failed commit counts then.
/// Locking: everything but Sync is called under the depot's lock.
class Journal {
public:
   /// `prefix` is the depot's directory and name. Touches no file.
   Journal(std::string directory, const std::string& name);

   /// Continues after what was found: the next generation begins in the file that is not in use.
   void Continue(const JournalReader& found);

   /// Begins a new generation in the file that is not in use: `snapshot` has all that is pending.
   /// It counts once it is synced; until then the generation before does.
   void BeginGeneration(const std::vector<JournalFormat::StoreShape>& stores,
                        JournalEntries& snapshot);

   /// Appends the entries as one commit.
   void Append(JournalEntries& entries);

   /// Brings all appended records to the disk. After a failure the file is not synced again,
   /// because its pages may be lost although a second call succeeds: begin a new generation.
   /// Needs no lock.
   void Sync();

   /// Whether commits can be appended.
   bool IsOpen() const { return _isOpen && !_hasFailed; }
   /// Whether the file is so long that a new generation is worthwhile.
   bool IsLong() const { return _end - _snapshotEnd > _maxCommitsBytes; }
   uint64_t GetGeneration() const { return _generation; }

   /// Whether both files are still at their paths.
   bool IsInPlace() const;

   /// Deletes both files.
   void Remove();

private:
   void Encode(JournalFormat::RecordKind kind, std::span<const std::byte> payload,
               uint64_t generation);
   void OpenFile(size_t index);
   void Grow(size_t index, uint64_t sizeBytes);

   const std::string _directory;
   const std::string _prefix;
   std::array<Corvax::Ref<Corvax::FileHandle>, kJournalFiles> _files;
   /// Held while a file is synced, and while a generation is begun. Locked after the depot's lock.
   const std::unique_ptr<Corvax::Mutex> _syncMutex;
   std::array<bool, kJournalFiles> _mustRemake{}; ///< failed to sync once
   std::atomic<size_t> _current = 0;              ///< file of the newest generation
   std::atomic<size_t> _synced = 0;               ///< file of the newest one that was synced
   bool _isOpen = false;
   std::atomic<bool> _hasFailed = false; ///< the current file did not sync
   uint64_t _generation = 0;
   std::atomic<uint64_t> _sequence = 0;
   std::atomic<uint64_t> _syncedSequence = 0;
   uint64_t _generationStart = 0;  ///< last sequence before the generation
   uint64_t _end = 0;              ///< offset of the next record
   uint64_t _snapshotEnd = 0;      ///< offset behind the snapshot
   uint64_t _maxCommitsBytes = 0;  ///< of all commits until the next generation
   uint64_t _commitBytes = 0;      ///< of the largest commit
   std::vector<std::byte> _buffer; ///< records that are not written yet
   uint64_t _encodedSequence = 0;  ///< of the last of them
};

} // namespace Metrix
