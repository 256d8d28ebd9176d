#pragma once

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>
#include <cerrno>
#include <functional>

/// The real file system, which counts reads and writes and fails on command: `failAt` counts down
/// to the operation that fails, with `failAll` all later ones fail, too. With `cutWrites` only
/// writes count, and they are truncated.
class FaultyFiles : public Corvax::SystemFactory {
public:
   FaultyFiles() : _real(Corvax::NewPosixFactory()) { Corvax::System::SetFactory(this); }
   ~FaultyFiles() override { Corvax::System::SetFactory(nullptr); }

   int failAt = 0; ///< 1: the next operation; 0: none
   bool failAll = false;
   bool cutWrites = false;
   int errorNumber = ENOSPC; ///< of the failures
   uint64_t calls = 0;       ///< system calls that read or write
   uint64_t bytes = 0;       ///< read and written

   /// Nothing fails any more.
   void Recover()
   {
      failAt = 0;
      _failing = false;
   }

   Corvax::Ref<Corvax::FileHandle> NewFileHandle() override
   {
      return Corvax::MakeRef<Handle>(*this, _real->NewFileHandle());
   }
   uint64_t GetFileSize(const std::string& path) override { return Step().GetFileSize(path); }
   bool Exists(const std::string& path) override { return _real->Exists(path); }
   void CreateDirectory(const std::string& path) override { Step().CreateDirectory(path); }
   void Rename(const std::string& from, const std::string& to) override { Step().Rename(from, to); }
   std::string NewScratchDirectory() override { return _real->NewScratchDirectory(); }
   void Remove(const std::string& path) override { Step().Remove(path); }
   void SyncDirectory(const std::string& path) override { Step().SyncDirectory(path); }
   std::vector<std::string> ListDirectory(const std::string& path) override
   {
      return Step().ListDirectory(path);
   }
   std::unique_ptr<Corvax::FileLock> Lock(const std::string& path) override
   {
      return _real->Lock(path);
   }
   int64_t GetLockHolder(const std::string& path) override { return _real->GetLockHolder(path); }

private:
   void Count(size_t sizeBytes)
   {
      ++calls;
      bytes += sizeBytes;
   }
   bool IsDue()
   {
      const bool due = _failing || (failAt > 0 && --failAt == 0);
      _failing = due && failAll;
      return due;
   }
   /// The real files, unless the operation fails.
   Corvax::SystemFactory& Step()
   {
      if (!cutWrites && IsDue()) {
         throw Corvax::PlatformException("access a file of the test", errorNumber);
      }
      return *_real;
   }

   class Handle : public Corvax::FileHandle, public Corvax::ObjectImpl {
   public:
      Handle(FaultyFiles& files, Corvax::Ref<Corvax::FileHandle> real)
         : _files(files), _real(std::move(real))
      {
      }
      void Open(const std::string& path, uint32_t access, Corvax::FileCreation creation) override
      {
         Step().Open(path, access, creation);
      }
      bool IsOpen() const override { return _real->IsOpen(); }
      void Close() override { _real->Close(); }
      uint64_t GetSize() override { return Step().GetSize(); }
      void Seek(uint64_t offset) override { _real->Seek(offset); }
      size_t Read(void* buffer, size_t sizeBytes) override
      {
         const size_t done = Step().Read(buffer, sizeBytes);
         _files.Count(done);
         return done;
      }
      size_t Write(const void* buffer, size_t sizeBytes) override
      {
         Step();
         _files.Count(sizeBytes);
         // A write of at most eight bytes is never split: it is within one page.
         const bool cut = _files.cutWrites && sizeBytes > 8 && _files.IsDue();
         return _real->Write(buffer, cut ? sizeBytes / 2 : sizeBytes);
      }
      void Flush() override { Step().Flush(); }
      void Truncate(uint64_t sizeBytes) override { Step().Truncate(sizeBytes); }
      void Allocate(uint64_t offset, uint64_t sizeBytes) override
      {
         Step().Allocate(offset, sizeBytes);
      }
      bool IsAt(const std::string& path) override { return _real->IsAt(path); }

   private:
      Corvax::FileHandle& Step()
      {
         _files.Step();
         return *_real;
      }

      FaultyFiles& _files;
      const Corvax::Ref<Corvax::FileHandle> _real;
   };

   const std::unique_ptr<Corvax::SystemFactory> _real;
   bool _failing = false;
};
