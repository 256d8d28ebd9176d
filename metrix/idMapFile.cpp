#include "metrix/idMapFile.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "metrix/rowWindow.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::FileCreation;
using IdMapFormat::kRecordSize;

constexpr uint64_t kRecordsPerRead = 1024;

} // namespace

void IdMapFile::Create(const std::string& path)
{
   Open(path, Corvax::FILE_READ_WRITE, FileCreation::CREATE_ALWAYS);
}

void IdMapFile::Open(const std::string& path, bool readOnly)
{
   Open(path, readOnly ? Corvax::FILE_READ : Corvax::FILE_READ_WRITE, FileCreation::OPEN_EXISTING);
}

void IdMapFile::Open(const std::string& path, uint32_t access, FileCreation creation)
{
   _idMapFileHandle = Corvax::System::GetFactory().NewFileHandle();
   _idMapFileHandle->Open(path, access, creation);
   _path = path;
   _reserved = 0;
}

/// In steps, because each is a system call.
void IdMapFile::Reserve(uint64_t count)
{
   if (count <= _reserved) {
      return;
   }
   const uint64_t end = count * kRecordSize;
   const uint64_t size = std::min(GetSizeBytes(), end);
   try {
      _idMapFileHandle->Allocate(size, end - size + kRecordsPerRead * kRecordSize);
      _reserved = count + kRecordsPerRead;
   } catch (const Corvax::PlatformException&) {
      _idMapFileHandle->Allocate(size, end - size);
      _reserved = count;
   }
}

/// A record that is cut off at the end of the file reads as free once records follow it.
void IdMapFile::CutIncompleteRecord(uint64_t end)
{
   const uint64_t size = GetSizeBytes();
   if (end > size && size % kRecordSize != 0) {
      _idMapFileHandle->Truncate(size - size % kRecordSize);
   }
}

void IdMapFile::ReadRecords(uint64_t count,
                            const std::function<void(StatId, const IdMapFormat::Record&)>& handle)
{
   std::vector<std::byte> bytes(kRecordsPerRead * kRecordSize);
   _idMapFileHandle->Seek(0);
   for (StatId first = 0; first < count; first += kRecordsPerRead) {
      const auto wanted = static_cast<size_t>(std::min(kRecordsPerRead, count - first));
      const size_t got = _idMapFileHandle->Read(bytes.data(), wanted * kRecordSize) / kRecordSize;
      for (size_t i = 0; i < got; ++i) {
         handle(first + i, IdMapFormat::DecodeRecord(&bytes[i * kRecordSize]));
      }
   }
}

void IdMapFile::WriteRecords(const std::vector<Entry>& entries)
{
   std::vector<std::byte> bytes;
   for (size_t i = 0; i < entries.size(); ++i) {
      const auto& [id, record] = entries[i];
      Assert(record.entityId.size() <= IdMapFormat::kMaxTextSize,
             "an entity id has at most 255 characters");
      Assert(record.statName.size() <= IdMapFormat::kMaxTextSize,
             "a stat name has at most 255 characters");
      bytes.resize(bytes.size() + kRecordSize);
      IdMapFormat::EncodeRecord(record, &bytes[bytes.size() - kRecordSize]);
      if (i + 1 == entries.size() || entries[i + 1].id != id + 1) {
         CutIncompleteRecord((id + 1) * kRecordSize);
         _idMapFileHandle->Seek((id + 1) * kRecordSize - bytes.size());
         _idMapFileHandle->WriteAll(bytes.data(), bytes.size());
         bytes.clear();
      }
   }
}

void IdMapFile::ClearRecords(const std::vector<StatId>& ids)
{
   RowWindow records(_idMapFileHandle, 0, kRecordSize);
   records.BeginBatch();
   for (const StatId id : ids) {
      IdMapFormat::FreeRecord(records.Get(id));
      records.MarkDirty(id);
   }
   records.EndBatch();
}

} // namespace Metrix
