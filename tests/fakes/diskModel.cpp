#include "tests/fakes/diskModel.h"

#include "corvax/exception.h"

#include <algorithm>
#include <cerrno>
#include <random>

namespace {

std::string Trim(const std::string& path)
{
   return path.ends_with('/') ? path.substr(0, path.size() - 1) : path;
}

std::string Parent(const std::string& path)
{
   return path.substr(0, path.rfind('/'));
}

} // namespace

void Disk::Put(FileContent& content, const Piece& piece)
{
   if (piece.isTruncation) {
      content.Resize(piece.offset);
   } else {
      content.Write(piece.offset, piece.bytes);
   }
}

void Disk::Put(Names& names, const NameChange& change)
{
   const std::string& to = change.to;
   if (!to.empty() && !Parent(to).empty() && !names.contains(Parent(to))) {
      return; // its directory is not on the disk
   }
   if (change.file == kDirectory && !change.from.empty()) {
      const std::string prefix = change.from + "/";
      for (auto name = names.lower_bound(prefix);
           name != names.end() && name->first.starts_with(prefix); name = names.erase(name)) {
         if (!to.empty()) {
            names[to + "/" + name->first.substr(prefix.size())] = name->second;
         }
      }
   }
   names.erase(change.from);
   if (!to.empty()) {
      names[to] = change.file;
   }
}

void Disk::ChangeName(const NameChange& change)
{
   Put(_names, change);
   _pendingNames.push_back(change);
}

/// Changes in other directories come along only if one in this directory continues them.
void Disk::SyncDirectory(const std::string& path)
{
   std::vector<bool> isSynced(_pendingNames.size());
   std::set<std::string> sources;
   for (size_t i = _pendingNames.size(); i-- > 0;) {
      const NameChange& change = _pendingNames[i];
      const std::string& name = change.to.empty() ? change.from : change.to;
      isSynced[i] = Parent(name) == path || sources.contains(name);
      if (isSynced[i]) {
         sources.insert(change.from);
      }
   }
   std::vector<NameChange> left;
   for (size_t i = 0; i < isSynced.size(); ++i) {
      if (isSynced[i]) {
         Put(_durableNames, _pendingNames[i]);
      } else {
         left.push_back(_pendingNames[i]);
      }
   }
   _pendingNames = std::move(left);
}

/// Each piece has all bytes of its part of the file, because the cache writes whole parts.
void Disk::Write(File& file, uint64_t offset, const std::string& bytes)
{
   Put(file.live, {offset, bytes, false});
   const uint64_t end = offset + bytes.size();
   for (uint64_t start = offset - offset % _grain; start < end; start += _grain) {
      file.pending.push_back({start, file.live.Read(start, _grain), false});
   }
}

void Disk::Flush(File& file)
{
   for (const Piece& piece : file.pending) {
      Put(file.durable, piece);
   }
   file.pending.clear();
}

void Disk::Lose(File& file, uint64_t seed, bool reverts)
{
   std::mt19937_64 random(seed);
   std::erase_if(file.pending,
                 [&](const Piece& piece) { return !piece.isTruncation && random() % 2 == 0; });
   Flush(file);
   if (reverts) { // all but the size
      const uint64_t sizeBytes = file.live.GetSize();
      file.live = file.durable;
      file.live.Resize(sizeBytes);
   }
}

void Disk::Apply(const Operation& operation)
{
   using enum Operation::Kind;
   const std::string& path = operation.path;
   File* const file = operation.file < _files.size() ? &_files[operation.file] : nullptr;
   switch (operation.kind) {
   case CREATE:
      ChangeName({"", path, _files.size()});
      _files.emplace_back();
      break;
   case DIRECTORY:
      ChangeName({"", path, kDirectory});
      break;
   case RENAME:
      ChangeName({path, operation.to, _names.at(path)});
      break;
   case REMOVE:
      ChangeName({path, "", _names.at(path)});
      break;
   case SYNC_DIRECTORY:
      SyncDirectory(path);
      break;
   case WRITE:
      Write(*file, operation.offset, operation.bytes);
      break;
   case TRUNCATE:
      file->pending.push_back({operation.offset, "", true});
      Put(file->live, file->pending.back());
      file->reserved = 0;
      break;
   case RESERVE:
      file->reserved = std::max(file->reserved, operation.offset);
      break;
   case FLUSH:
      Flush(*file);
      break;
   case LOSE:
   case LOSE_REVERT:
      Lose(*file, operation.offset, operation.kind == LOSE_REVERT);
      break;
   }
}

size_t Disk::CountPending() const
{
   size_t count = _pendingNames.size();
   for (const File& file : _files) {
      count += file.pending.size();
   }
   return count;
}

Disk Disk::CutPower(const std::vector<Fate>& fates, const std::string& garbled) const
{
   Disk after(_grain);
   after._names = _durableNames;
   for (size_t i = 0; i < _pendingNames.size(); ++i) {
      if (fates[i] == KEPT) {
         Put(after._names, _pendingNames[i]);
      }
   }
   after._durableNames = after._names;
   after._files.resize(_files.size());
   for (const auto& [name, file] : after._names) {
      if (file != kDirectory) {
         const bool mayGarble = name.find(garbled) != std::string::npos;
         size_t first = _pendingNames.size();
         for (size_t i = 0; i < file; ++i) {
            first += _files[i].pending.size();
         }
         const FileContent content = CutPower(_files[file], fates.data() + first, mayGarble);
         after._files[file] = {content, content, {}, 0};
      }
   }
   return after;
}

FileContent Disk::CutPower(const File& file, const Fate* fates, bool mayGarble)
{
   const size_t count = file.pending.size();
   size_t keptEnd = count; // behind the last piece that came to the disk
   while (keptEnd > 0 && fates[keptEnd - 1] == LOST) {
      --keptEnd;
   }
   FileContent content = file.durable;
   for (size_t i = 0; i < keptEnd; ++i) {
      const Piece& piece = file.pending[i];
      // File systems keep the order of a truncation and the writes after it.
      if (fates[i] == KEPT || piece.isTruncation) {
         Put(content, piece);
      } else if (fates[i] == GARBAGE && mayGarble) {
         std::mt19937 random(static_cast<uint32_t>(piece.offset));
         std::string noise = piece.bytes;
         std::ranges::generate(noise, [&] { return static_cast<char>(random()); });
         Put(content, {piece.offset, noise, false});
      }
   }
   return content;
}

Disk Disk::Kill() const
{
   Disk after = *this;
   after._pendingNames.clear();
   after._durableNames = _names;
   for (File& file : after._files) {
      file.durable = file.live;
      file.pending.clear();
   }
   return after;
}

uint64_t Disk::GetUsedBytes() const
{
   uint64_t used = 0;
   for (const auto& [name, file] : _names) {
      used += file == kDirectory ? 0 : std::max(_files[file].live.GetSize(), _files[file].reserved);
   }
   return used;
}

class DiskModel::Handle : public Corvax::FileHandle, public Corvax::ObjectImpl {
public:
   explicit Handle(DiskModel& model) : _model(model) {}

   void Open(const std::string& path, uint32_t access, Corvax::FileCreation creation) override
   {
      Handle::Close();
      _model.Step(OPEN, "open " + path);
      const bool isNew = creation == Corvax::FileCreation::CREATE_ALWAYS;
      if (isNew && !_model.Exists(path)) {
         _model.Find(Parent(path), "open " + path);
         _model.Do({.kind = Disk::Operation::CREATE, .path = path});
      } else if (isNew) {
         _model.Do({.kind = Disk::Operation::TRUNCATE, .file = _model.Find(path, "open " + path)});
      }
      _file = _model.Find(path, "open " + path);
      _path = path;
      _access = access;
      _position = 0;
   }
   bool IsOpen() const override { return _access != 0; }
   void Close() override { _access = 0; }

   uint64_t GetSize() override
   {
      Require(0);
      return _model.disk.GetFile(_file).GetSize();
   }
   void Seek(uint64_t offset) override { _position = offset; }

   size_t Read(void* buffer, size_t sizeBytes) override
   {
      Require(Corvax::FILE_READ);
      _model.Step(READ, "read " + _path);
      const std::string bytes = _model.disk.GetFile(_file).Read(_position, sizeBytes);
      const size_t done = bytes.copy(static_cast<char*>(buffer), sizeBytes);
      _position += done;
      return done;
   }

   size_t Write(const void* buffer, size_t sizeBytes) override
   {
      Require(Corvax::FILE_WRITE);
      const bool isShort = _model.Step(WRITE, "write " + _path);
      const size_t fitting = _model.CountFitting(_file, _position, sizeBytes);
      if (fitting == 0 && sizeBytes > 0) {
         throw Corvax::PlatformException("write " + _path, ENOSPC);
      }
      const size_t done = isShort ? std::min(fitting, sizeBytes / 2) : fitting;
      _model.Do({.kind = Disk::Operation::WRITE,
                 .file = _file,
                 .offset = _position,
                 .bytes = std::string(static_cast<const char*>(buffer), done)});
      _position += done;
      return done;
   }

   void Flush() override
   {
      Require(0);
      try {
         _model.Step(FLUSH, "flush " + _path);
      } catch (const Corvax::PlatformException&) {
         _model.Do(
            {.kind = _model.fault.reverts ? Disk::Operation::LOSE_REVERT : Disk::Operation::LOSE,
             .file = _file,
             .offset = _model.log.size()});
         throw;
      }
      _model.Do({.kind = Disk::Operation::FLUSH, .file = _file});
   }

   void Truncate(uint64_t sizeBytes) override
   {
      Require(Corvax::FILE_WRITE);
      _model.Step(WRITE, "truncate " + _path);
      _model.Do({.kind = Disk::Operation::TRUNCATE, .file = _file, .offset = sizeBytes});
   }

   void Allocate(uint64_t offset, uint64_t sizeBytes) override
   {
      Require(Corvax::FILE_WRITE);
      _model.Step(RESERVE, "reserve space of " + _path);
      if (_model.CountFitting(_file, offset, sizeBytes) < sizeBytes) {
         throw Corvax::PlatformException("reserve space of " + _path, ENOSPC);
      }
      _model.Do({.kind = Disk::Operation::RESERVE, .file = _file, .offset = offset + sizeBytes});
   }

   bool IsAt(const std::string& path) override
   {
      const auto found = _model.disk.GetNames().find(path);
      return found != _model.disk.GetNames().end() && found->second == _file;
   }

private:
   void Require(uint32_t access) const
   {
      if (_access == 0 || (access != 0 && (_access & access) == 0)) {
         throw Corvax::PlatformException("use " + _path, EBADF);
      }
   }

   DiskModel& _model;
   size_t _file = 0;
   std::string _path;
   uint32_t _access = 0; ///< 0: closed
   uint64_t _position = 0;
};

class DiskModel::HeldLock : public Corvax::FileLock {
public:
   HeldLock(DiskModel& model, std::string path) : _model(model), _path(std::move(path)) {}
   ~HeldLock() override { _model._locked.erase(_path); }

private:
   DiskModel& _model;
   const std::string _path;
};

void DiskModel::Do(Disk::Operation operation)
{
   disk.Apply(operation);
   log.push_back(std::move(operation));
}

bool DiskModel::Step(Class kind, const std::string& action)
{
   if ((fault.classes & kind) == 0) {
      return false;
   }
   ++fault.seen;
   const bool isDue = fault.seen >= fault.first && fault.seen - fault.first < fault.count;
   if (isDue && fault.reason != 0) {
      throw Corvax::PlatformException(action, fault.reason);
   }
   return isDue;
}

size_t DiskModel::Find(const std::string& path, const std::string& action) const
{
   const auto found = disk.GetNames().find(Trim(path));
   if (found == disk.GetNames().end()) {
      throw Corvax::PlatformException(action, ENOENT);
   }
   return found->second;
}

size_t DiskModel::CountFitting(size_t file, uint64_t offset, size_t sizeBytes) const
{
   const uint64_t own = std::max(disk.GetFile(file).GetSize(), disk.GetReserved(file));
   const uint64_t used = disk.GetUsedBytes();
   const uint64_t end = own + (capacityBytes > used ? capacityBytes - used : 0);
   return capacityBytes == UINT64_MAX ? sizeBytes
          : end <= offset             ? 0
                                      : static_cast<size_t>(std::min(sizeBytes, end - offset));
}

Corvax::Ref<Corvax::FileHandle> DiskModel::NewFileHandle()
{
   return Corvax::MakeRef<Handle>(*this);
}

uint64_t DiskModel::GetFileSize(const std::string& path)
{
   const std::string action = "get the size of " + path;
   Step(READ, action);
   return disk.GetFile(Find(path, action)).GetSize();
}

bool DiskModel::Exists(const std::string& path)
{
   return disk.GetNames().contains(Trim(path));
}

void DiskModel::CreateDirectory(const std::string& path)
{
   Step(NAME, "create directory " + path);
   for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
      if (!Exists(path.substr(0, end))) {
         Do({.kind = Disk::Operation::DIRECTORY, .path = path.substr(0, end)});
      }
   }
   if (!Exists(path)) {
      Do({.kind = Disk::Operation::DIRECTORY, .path = path});
   }
}

void DiskModel::Rename(const std::string& from, const std::string& to)
{
   const std::string action = "rename " + from + " to " + to;
   Step(NAME, action);
   Find(from, action);
   Do({.kind = Disk::Operation::RENAME, .path = Trim(from), .to = Trim(to)});
}

std::string DiskModel::NewScratchDirectory()
{
   const std::string path = "/scratch" + std::to_string(disk.GetNames().size()) + "/";
   CreateDirectory(path);
   return path;
}

void DiskModel::Remove(const std::string& path)
{
   Step(NAME, "remove " + path);
   const std::string root = Trim(path);
   std::vector<std::string> doomed; // children follow their directory, and go first
   for (const auto& [name, file] : disk.GetNames()) {
      if (name == root || name.starts_with(root + "/")) {
         doomed.push_back(name);
      }
   }
   for (; !doomed.empty(); doomed.pop_back()) {
      Do({.kind = Disk::Operation::REMOVE, .path = doomed.back()});
   }
}

void DiskModel::SyncDirectory(const std::string& path)
{
   Step(FLUSH, "flush directory " + path);
   Find(path, "flush directory " + path);
   Do({.kind = Disk::Operation::SYNC_DIRECTORY, .path = Trim(path)});
}

std::vector<std::string> DiskModel::ListDirectory(const std::string& path)
{
   Step(READ, "list directory " + path);
   Find(path, "list directory " + path);
   std::vector<std::string> names;
   for (const auto& [name, file] : disk.GetNames()) {
      if (Parent(name) == Trim(path)) {
         names.push_back(name.substr(Trim(path).size() + 1));
      }
   }
   return names;
}

std::unique_ptr<Corvax::FileLock> DiskModel::Lock(const std::string& path)
{
   Step(OPEN, "lock " + path);
   if (!_locked.insert(path).second) {
      throw Corvax::Exception(path + " is locked: process 1 is using the directory");
   }
   auto lock = std::make_unique<HeldLock>(*this, path);
   if (!Exists(path)) {
      Do({.kind = Disk::Operation::CREATE, .path = path});
   }
   return lock;
}

int64_t DiskModel::GetLockHolder(const std::string& path)
{
   return _locked.contains(path) ? 1 : 0;
}
