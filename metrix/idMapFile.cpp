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
   Open(path, FileCreation::CREATE_ALWAYS);
}

void IdMapFile::Open(const std::string& path)
{
   Open(path, FileCreation::OPEN_EXISTING);
}

void IdMapFile::Open(const std::string& path, FileCreation creation)
{
   _idMapFileHandle = Corvax::System::GetFactory().NewFileHandle();
   _idMapFileHandle->Open(path, Corvax::FILE_READ_WRITE, creation);
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
