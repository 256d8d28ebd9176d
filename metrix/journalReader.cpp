#include "metrix/journalReader.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <cerrno>

namespace Metrix {

using JournalFormat::Record;

/// The records at the start of a file that are whole and follow each other.
struct JournalReader::Found {
   State state = State::NONE;
   std::string detail;
   bool hasSnapshot = false;
   uint64_t generation = 0;
   uint64_t lostGeneration = 0; ///< newest one that was synced and cannot be read
   uint64_t lastSequence = 0;
   std::vector<JournalFormat::StoreShape> stores;
   std::vector<std::span<const std::byte>> payloads;
};

namespace {

std::vector<std::byte> ReadFile(const std::string& fileName)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   if (!factory.Exists(fileName)) {
      return {};
   }
   const auto file = factory.NewFileHandle();
   file->Open(fileName, Corvax::FILE_READ, Corvax::FileCreation::OPEN_EXISTING);
   std::vector<std::byte> bytes(static_cast<size_t>(file->GetSize()));
   bytes.resize(file->Read(bytes.data(), bytes.size()));
   return bytes;
}

/// Whether a record behind the gap shows that the record `missing` had been synced.
bool WasSynced(std::span<const std::byte> behindGap, uint64_t generation, uint64_t missing)
{
   for (size_t pos = 0; pos < behindGap.size(); pos += JournalFormat::kAlignment) {
      Record record;
      if (JournalFormat::PeekGeneration(behindGap.subspan(pos)) == generation &&
          JournalFormat::DecodeRecord(behindGap.subspan(pos), record) > 0 &&
          record.syncedThrough >= missing) {
         return true;
      }
   }
   return false;
}

/// The newest generation whose snapshot is known to have been synced.
uint64_t FindLostGeneration(std::span<const std::byte> bytes)
{
   uint64_t newest = 0;
   for (size_t pos = 0; pos < bytes.size(); pos += JournalFormat::kAlignment) {
      Record record;
      if (JournalFormat::PeekGeneration(bytes.subspan(pos)) > newest &&
          JournalFormat::DecodeRecord(bytes.subspan(pos), record) > 0 && record.syncedThrough > 0) {
         newest = record.generation;
      }
   }
   return newest;
}

} // namespace

JournalReader::Found JournalReader::Scan(const std::string& fileName,
                                         std::span<const std::byte> bytes) const
{
   Found found;
   size_t pos = 0;
   for (;;) {
      Record record;
      const size_t size = JournalFormat::DecodeRecord(bytes.subspan(pos), record);
      const bool isFirst = pos == 0;
      if (size == 0 || isFirst != (record.kind == JournalFormat::RECORD_HEADER) ||
          (!isFirst &&
           (record.generation != found.generation || record.sequence != found.lastSequence + 1))) {
         break;
      }
      found.generation = record.generation;
      found.lastSequence = record.sequence;
      if (isFirst && !JournalFormat::DecodeHeader(record.payload, found.stores)) {
         found.state = State::UNREADABLE;
         found.detail = fileName + " is of another version, or not a depot's journal";
         return found;
      }
      found.hasSnapshot = found.hasSnapshot || record.kind == JournalFormat::RECORD_SNAPSHOT_END;
      if (record.kind == JournalFormat::RECORD_SNAPSHOT ||
          record.kind == JournalFormat::RECORD_COMMIT) {
         found.payloads.push_back(record.payload);
      }
      pos += size;
   }
   if (!found.hasSnapshot) {
      found.lostGeneration = FindLostGeneration(bytes.subspan(pos));
      return found;
   }
   found.state = State::WHOLE;
   const std::span<const std::byte> rest = bytes.subspan(pos);
   const std::string place = " at offset " + std::to_string(pos) + " of " + fileName;
   if (WasSynced(rest, found.generation, found.lastSequence + 1)) {
      found.state = State::DAMAGED;
      found.detail = "a record that was synced is damaged" + place;
   } else if (JournalFormat::PeekGeneration(rest) == found.generation) {
      found.state = State::TORN;
      found.detail = "the last record was cut short" + place;
   }
   return found;
}

void JournalReader::Read(const std::string& prefix)
{
   *this = {};
   std::array<Found, kJournalFiles> found;
   for (size_t i = 0; i < kJournalFiles; ++i) {
      const std::string fileName = GetJournalFileName(prefix, i);
      try {
         _bytes[i] = ReadFile(fileName);
         found[i] = Scan(fileName, _bytes[i]);
      } catch (const Corvax::PlatformException& e) {
         if (e.GetErrorNumber() != EIO) {
            throw; // a passing failure must not cost the samples
         }
         found[i].state = State::UNREADABLE;
         found[i].detail = e.GetMessage();
      }
      _highestGeneration =
         std::max({_highestGeneration, found[i].generation, found[i].lostGeneration});
   }
   // The other file is nothing once the newest generation has a whole snapshot.
   const size_t newest =
      found[1].hasSnapshot && (!found[0].hasSnapshot || found[1].generation > found[0].generation)
         ? 1
         : 0;
   const Found& other = found[1 - newest];
   Found& chosen = found[newest];
   if (other.lostGeneration > chosen.generation) {
      chosen = {};
      chosen.state = State::DAMAGED;
      chosen.detail = "the newest snapshot is damaged in " + GetJournalFileName(prefix, 1 - newest);
   }
   _fileIndex = newest;
   _state = chosen.state;
   _detail = chosen.detail;
   for (const Found& each : found) {
      if (each.state == State::UNREADABLE) {
         _state = State::UNREADABLE; // it may be the newer one
         _detail = each.detail;
      }
   }
   if (chosen.hasSnapshot) {
      _generation = chosen.generation;
      _lastSequence = chosen.lastSequence;
      _stores = std::move(chosen.stores);
      _payloads = std::move(chosen.payloads);
   }
}

} // namespace Metrix
