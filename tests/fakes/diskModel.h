#pragma once

#include "corvax/system.h"
#include "tests/fakes/fileContent.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// A disk and the page cache above it. A value: states are copied, kept and varied.
///
/// A write is cut into pieces at multiples of the grain. Until its file is flushed, a piece may be
/// on the disk or not, in any order; the same goes for a change of a name until its directory is
/// flushed.
class Disk {
public:
   using Names = std::map<std::string, size_t>; ///< path to file
   static constexpr size_t kDirectory = SIZE_MAX;

   /// A change. The same ones give the same disk.
   struct Operation {
      enum Kind : uint8_t {
         CREATE,    ///< file `path`
         DIRECTORY, ///< `path`
         RENAME,    ///< `path` to `to`
         REMOVE,    ///< `path`: a file or an empty directory
         SYNC_DIRECTORY,
         WRITE,
         TRUNCATE,    ///< to `offset` bytes
         RESERVE,     ///< up to `offset`
         FLUSH,       ///< a file
         LOSE,        ///< a failed flush: each piece is written or lost, by the seed `offset`
         LOSE_REVERT, ///< the same, and what was lost is gone from the cache, too
      };
      Kind kind;
      std::string path = {};
      std::string to = {};
      size_t file = 0;
      uint64_t offset = 0;
      std::string bytes = {};
   };

   /// What a power cut makes of something that is pending.
   enum Fate : uint8_t { LOST, KEPT, GARBAGE };

   explicit Disk(size_t grain = 4096) : _grain(grain) {}

   void Apply(const Operation& operation);

   /// Number of pieces and changes of names that a power cut may lose.
   size_t CountPending() const;
   /// The disk after a power cut. Pieces of a file whose name does not contain `garbled` are lost
   /// instead of becoming garbage.
   Disk CutPower(const std::vector<Fate>& fates, const std::string& garbled) const;
   /// The disk after the process was killed: the cache lives on.
   Disk Kill() const;

   const Names& GetNames() const { return _names; }
   size_t CountFiles() const { return _files.size(); }
   std::string GetContent(size_t file) const { return _files[file].live.Read(0, SIZE_MAX); }
   const FileContent& GetFile(size_t file) const { return _files[file].live; }
   uint64_t GetReserved(size_t file) const { return _files[file].reserved; }
   /// What the files that have a name take up or have reserved.
   uint64_t GetUsedBytes() const;

private:
   struct Piece {
      uint64_t offset; ///< or the new size
      std::string bytes;
      bool isTruncation;
   };
   struct File {
      FileContent live;
      FileContent durable;
      std::vector<Piece> pending;
      uint64_t reserved = 0;
   };
   /// A new name if `from` is empty, a removal if `to` is, otherwise a rename.
   struct NameChange {
      std::string from;
      std::string to;
      size_t file;
   };

   static void Put(FileContent& content, const Piece& piece);
   static void Put(Names& names, const NameChange& change);
   void ChangeName(const NameChange& change);
   void SyncDirectory(const std::string& path);
   void Write(File& file, uint64_t offset, const std::string& bytes);
   static void Flush(File& file);
   static FileContent CutPower(const File& file, const Fate* fates, bool mayGarble);
   static void Lose(File& file, uint64_t seed, bool reverts);

   size_t _grain;
   Names _names;
   Names _durableNames;
   std::vector<NameChange> _pendingNames;
   std::vector<File> _files;
};

/// The platform's files, on a disk in memory, until the model is destroyed. Paths may end with "/".
class DiskModel : public Corvax::SystemFactory {
public:
   enum Class : uint8_t { OPEN = 1, READ = 2, WRITE = 4, FLUSH = 8, NAME = 16, RESERVE = 32 };

   /// Operations of some classes that fail.
   struct Fault {
      uint32_t classes = 0;
      uint64_t first = 1; ///< the first one to fail; 1 is the next
      uint64_t count = 1;
      int reason = 0; ///< an errno; 0: only half of the bytes are written
      bool reverts = false;
      uint64_t seen = 0; ///< so far
   };

   explicit DiskModel(Disk start) : disk(std::move(start)), _before(Corvax::System::GetFactory())
   {
      Corvax::System::SetFactory(this);
   }
   ~DiskModel() override { Corvax::System::SetFactory(&_before); }

   Disk disk;
   std::vector<Disk::Operation> log; ///< all changes
   Fault fault;
   uint64_t capacityBytes = UINT64_MAX;

   Corvax::Ref<Corvax::FileHandle> NewFileHandle() override;
   uint64_t GetFileSize(const std::string& path) override;
   bool Exists(const std::string& path) override;
   void CreateDirectory(const std::string& path) override;
   void Rename(const std::string& from, const std::string& to) override;
   std::string NewScratchDirectory() override;
   void Remove(const std::string& path) override;
   void SyncDirectory(const std::string& path) override;
   std::vector<std::string> ListDirectory(const std::string& path) override;
   std::unique_ptr<Corvax::FileLock> Lock(const std::string& path) override;
   int64_t GetLockHolder(const std::string& path) override;

private:
   class Handle;
   class HeldLock;

   void Do(Disk::Operation operation);
   /// True if only half of the bytes are to be written; PlatformException if it fails.
   bool Step(Class kind, const std::string& action);
   size_t Find(const std::string& path, const std::string& action) const;
   /// How many of the bytes find room.
   size_t CountFitting(size_t file, uint64_t offset, size_t sizeBytes) const;

   SystemFactory& _before;
   std::set<std::string> _locked;
};
