#pragma once

#include "corvax/file.h"
#include "metrix/idMapFormat.h"
#include "metrix/statTypes.h"

#include <functional>
#include <string>
#include <vector>

namespace Metrix {

/// The id-map file of a depot: a record per stat id.
///
/// Errors: PlatformException where the file system fails, AssertionException where it writes only
/// a part. Writes before the failed one have reached the file.
/// Locking: none; used under the depot's lock.
class IdMapFile {
public:
   struct Entry {
      StatId id;
      IdMapFormat::Record record;
   };

   /// Creates the file, or empties it if it exists.
   void Create(const std::string& path);
   /// The file must exist.
   void Open(const std::string& path, bool readOnly = false);

   uint64_t GetSizeBytes() { return _idMapFileHandle->GetSize(); }

   /// Calls `handle` for the first `count` records in turn, free ones included; for fewer if the
   /// file ends before. The record's texts are valid during the call.
   void ReadRecords(uint64_t count,
                    const std::function<void(StatId, const IdMapFormat::Record&)>& handle);

   /// Writes the records in the order given, consecutive ids with one system call. Those between
   /// the end of the file and the first new record become free.
   void WriteRecords(const std::vector<Entry>& entries);

   /// Makes the records free. The ids ascend.
   void ClearRecords(const std::vector<StatId>& ids);

   /// Brings everything written to the disk.
   void Sync() { _idMapFileHandle->Flush(); }

   /// Reserves space for that many records; PlatformException (ENOSPC) if there is none.
   void Reserve(uint64_t count);

   /// Whether the file is still at the path that it was opened at.
   bool IsInPlace() { return _idMapFileHandle->IsAt(_path); }

private:
   void Open(const std::string& path, uint32_t access, Corvax::FileCreation creation);

   void CutIncompleteRecord(uint64_t end);

   std::string _path;
   Corvax::Ref<Corvax::FileHandle> _idMapFileHandle;
   uint64_t _reserved = 0; ///< records
};

} // namespace Metrix
