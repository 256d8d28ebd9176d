#include "depotTool/depotCopy.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "depotTool/interruption.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace DepotTool {

namespace {

using Corvax::FileCreation;
using Corvax::Format;

constexpr int kAttempts = 5;
constexpr size_t kBlockBytes = size_t{1} << 20;

/// Names of the depot's files that are there, in the order in which they are copied.
std::vector<std::string> ListFiles(const DepotPaths& depot)
{
   std::vector<std::string> files;
   for (const int32_t periodSec : depot.FindStores()) {
      files.push_back(depot.GetStore(periodSec));
   }
   for (const std::string& path :
        {depot.GetIdMap(), depot.GetDescription(), depot.GetJournal(0), depot.GetJournal(1)}) {
      if (Corvax::System::GetFactory().Exists(path)) {
         files.push_back(path);
      }
   }
   for (std::string& path : files) {
      path.erase(0, depot.dir.size());
   }
   return files;
}

Corvax::Ref<Corvax::FileHandle> Open(const std::string& path, uint32_t access,
                                     FileCreation creation = FileCreation::OPEN_EXISTING)
{
   auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(path, access, creation);
   return file;
}

void CopyFile(const std::string& from, const std::string& to)
{
   const auto in = Open(from, Corvax::FILE_READ);
   const auto out = Open(to, Corvax::FILE_WRITE, FileCreation::CREATE_ALWAYS);
   std::vector<std::byte> block(kBlockBytes);
   while (const size_t count = in->Read(block.data(), block.size())) {
      ThrowIfInterrupted();
      out->WriteAll(block.data(), count);
   }
   out->Close();
}

bool HaveSameBytes(const std::string& path, const std::string& other)
{
   const auto first = Open(path, Corvax::FILE_READ);
   const auto second = Open(other, Corvax::FILE_READ);
   std::vector<std::byte> block(kBlockBytes);
   std::vector<std::byte> otherBlock(kBlockBytes);
   for (;;) {
      ThrowIfInterrupted();
      const size_t count = first->Read(block.data(), block.size());
      const size_t otherCount = second->Read(otherBlock.data(), otherBlock.size());
      if (count != otherCount ||
          !std::equal(block.begin(), block.begin() + static_cast<ptrdiff_t>(count),
                      otherBlock.begin())) {
         return false;
      }
      if (count == 0) {
         return true;
      }
   }
}

/// How far the journal is; generation 0 if there is none.
struct JournalMark {
   uint64_t generation = 0;
   uint64_t sequence = 0;

   bool operator==(const JournalMark&) const = default;
};

JournalMark GetMark(const DepotPaths& depot)
{
   Metrix::JournalReader reader;
   reader.Read(depot.dir + depot.name);
   return {reader.GetGeneration(), reader.GetLastSequence()};
}

/// False if the depot changed meanwhile.
///
/// With a journal, rows may be laid down while they are copied: the journal still has them as long
/// as it has not got further. Without one, each file that is the same before and after was not
/// changed between the end of copying and the start of comparing: so all copies are of that moment.
bool TryCopy(const DepotPaths& from, const DepotPaths& to)
{
   const JournalMark mark = GetMark(from);
   const std::vector<std::string> files = ListFiles(from);
   for (const std::string& file : files) {
      CopyFile(from.dir + file, to.dir + file);
   }
   if (mark.generation != 0) {
      return files == ListFiles(from) && GetMark(to) == mark;
   }
   return files == ListFiles(from) && std::ranges::all_of(files, [&](const std::string& file) {
             return HaveSameBytes(from.dir + file, to.dir + file);
          });
}

} // namespace

void CopyDepot(const DepotPaths& from, const DepotPaths& to)
{
   if (!from.HasDepot()) {
      throw Corvax::NotFoundException(Format("there is no depot %1 in %2", from.name, from.dir));
   }
   for (int attempt = 0; attempt < kAttempts; ++attempt) {
      if (TryCopy(from, to)) {
         return;
      }
      RemoveCopy(to);
   }
   throw Corvax::Exception(Format("depot %1 in %2 is busy: it changed during each of %3 attempts "
                                  "to copy it; try again, or stop the agent",
                                  from.name, from.dir, kAttempts));
}

void SyncDepot(const DepotPaths& depot)
{
   for (const std::string& file : ListFiles(depot)) {
      Open(depot.dir + file, Corvax::FILE_READ_WRITE)->Flush();
   }
   Corvax::System::GetFactory().SyncDirectory(depot.dir);
}

void RemoveCopy(const DepotPaths& copy)
{
   for (const std::string& file : ListFiles(copy)) {
      Corvax::System::GetFactory().Remove(copy.dir + file);
   }
}

PrivateCopy::PrivateCopy(const DepotPaths& original)
   : _paths{Corvax::System::GetFactory().NewScratchDirectory(), original.name}
{
   try {
      CopyDepot(original, _paths);
   } catch (...) {
      Corvax::System::GetFactory().Remove(_paths.dir);
      throw;
   }
}

PrivateCopy::~PrivateCopy()
{
   try {
      Corvax::System::GetFactory().Remove(_paths.dir);
   } catch (const Corvax::Exception&) {
      // A temporary file that stays does no harm.
   }
}

} // namespace DepotTool
