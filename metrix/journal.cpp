#include "metrix/journal.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <utility>

namespace Metrix {

namespace {

/// A new generation is begun when the commits take more than this and more than the snapshot: then
/// neither writing nor replaying costs much more than the samples themselves.
constexpr uint64_t kMinCommitsBytes = uint64_t{1} << 20;

constexpr size_t kMaxKeptBytes = size_t{256} << 10;

constexpr int kCounterShift = 32;

class MutexGuard {
public:
   explicit MutexGuard(Corvax::Mutex& mutex) : _mutex(mutex) { _mutex.Lock(); }
   ~MutexGuard() { _mutex.Unlock(); }
   MutexGuard(const MutexGuard&) = delete;
   MutexGuard& operator=(const MutexGuard&) = delete;

private:
   Corvax::Mutex& _mutex;
};

/// Higher than `before`, and different from what any other process would take.
uint64_t MakeGeneration(uint64_t before)
{
   return ((before >> kCounterShift) + 1) << kCounterShift | std::random_device()();
}

} // namespace

Journal::Journal(std::string directory, const std::string& name)
   : _directory(std::move(directory)), _prefix(_directory + name),
     _syncMutex(Corvax::System::GetFactory().CreateMutex())
{
}

void Journal::Continue(const JournalReader& found)
{
   _generation = found.GetHighestGeneration();
   _current = found.GetFileIndex();
   _synced = found.GetFileIndex();
   _sequence = found.GetLastSequence();
   _syncedSequence = found.GetLastSequence();
}

void Journal::Encode(JournalFormat::RecordKind kind, std::span<const std::byte> payload,
                     uint64_t generation)
{
   const uint64_t synced = _syncedSequence;
   JournalFormat::EncodeRecord(
      {generation, ++_encodedSequence, synced > _generationStart ? synced : 0, kind, payload},
      _buffer);
}

/// Creates the file unless this process has done so. One that failed to sync is created anew: its
/// pages in memory cannot be trusted any more.
void Journal::OpenFile(size_t index)
{
   if (_files[index] && !_mustRemake[index]) {
      return;
   }
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   const std::string fileName = GetJournalFileName(_prefix, index);
   _files[index] = nullptr; // first: a file that is not at its path looks like one replaced
   factory.Remove(fileName);
   auto file = factory.NewFileHandle();
   file->Open(fileName, Corvax::FILE_READ_WRITE, Corvax::FileCreation::CREATE_ALWAYS);
   factory.SyncDirectory(_directory);
   _files[index] = std::move(file);
   _mustRemake[index] = false;
}

/// Makes room for that many bytes. The size grows with it, so that appending changes no metadata.
void Journal::Grow(size_t index, uint64_t sizeBytes)
{
   Corvax::FileHandle& file = *_files[index];
   const uint64_t size = file.GetSize();
   if (size < sizeBytes) {
      file.Allocate(size, sizeBytes - size);
      file.Truncate(sizeBytes);
   }
}

void Journal::BeginGeneration(const std::vector<JournalFormat::StoreShape>& stores,
                              JournalEntries& snapshot)
{
   const MutexGuard guard(*_syncMutex);
   // Never over the newest snapshot that is on the disk for certain.
   const size_t index = 1 - _synced;
   _mustRemake[_current] = _mustRemake[_current] || _hasFailed;
   const uint64_t generation = MakeGeneration(_generation);
   OpenFile(index);
   _buffer.clear();
   _encodedSequence = _sequence;
   _generationStart = _sequence;
   Encode(JournalFormat::RECORD_HEADER, JournalFormat::EncodeHeader(stores), generation);
   for (const auto part : snapshot.GetParts()) {
      Encode(JournalFormat::RECORD_SNAPSHOT, part, generation);
   }
   Encode(JournalFormat::RECORD_SNAPSHOT_END, {}, generation);
   const uint64_t maxCommitsBytes = std::max<uint64_t>(_buffer.size(), kMinCommitsBytes);
   try {
      Grow(index, _buffer.size() + maxCommitsBytes + 2 * _commitBytes);
   } catch (const Corvax::PlatformException&) {
      Grow(index, _buffer.size()); // a full disk: commits may find room in what is there
   }
   _files[index]->Seek(0);
   _files[index]->WriteAll(_buffer.data(), _buffer.size());
   _current = index;
   _generation = generation;
   _sequence = _encodedSequence;
   _snapshotEnd = _buffer.size();
   _end = _snapshotEnd;
   _maxCommitsBytes = maxCommitsBytes;
   _isOpen = true;
   _hasFailed = false;
   _buffer = {}; // far larger than a commit's
}

void Journal::Append(JournalEntries& entries)
{
   _buffer.clear();
   _encodedSequence = _sequence;
   for (const auto part : entries.GetParts()) {
      Encode(JournalFormat::RECORD_COMMIT, part, _generation);
   }
   // At a remembered offset: what a failed attempt left is written over by the next one.
   _files[_current]->Seek(_end);
   _files[_current]->WriteAll(_buffer.data(), _buffer.size());
   _end += _buffer.size();
   _sequence = _encodedSequence;
   _commitBytes = std::max<uint64_t>(_commitBytes, _buffer.size());
   if (_buffer.size() > kMaxKeptBytes) {
      _buffer = {};
   }
}

void Journal::Sync()
{
   const MutexGuard guard(*_syncMutex);
   const uint64_t sequence = _sequence; // read before the file: a new generation sets it last
   const size_t current = _current;
   if (_syncedSequence >= sequence) {
      return;
   }
   if (_hasFailed) {
      throw Corvax::PlatformException("flush the journal to disk again", EIO);
   }
   const Corvax::Ref<Corvax::FileHandle> file = _files[current];
   try {
      file->Flush();
   } catch (const Corvax::PlatformException&) {
      _hasFailed = true;
      throw;
   }
   _synced = current;
   _syncedSequence = sequence;
}

bool Journal::IsInPlace() const
{
   for (size_t i = 0; i < kJournalFiles; ++i) {
      if (_files[i] && !_files[i]->IsAt(GetJournalFileName(_prefix, i))) {
         return false;
      }
   }
   return true;
}

void Journal::Remove()
{
   for (size_t i = 0; i < kJournalFiles; ++i) {
      _files[i] = nullptr;
      Corvax::System::GetFactory().Remove(GetJournalFileName(_prefix, i));
   }
   _isOpen = false;
}

} // namespace Metrix
