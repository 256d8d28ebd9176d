#pragma once

#include "depotTool/depotPaths.h"

namespace DepotTool {

/// Copies a depot's files, also while its process writes them: the copies are all of one moment.
/// Opens the originals for reading only and takes no lock. Starts over when a file changes
/// meanwhile; Exception ("busy") after some attempts. NotFoundException if there is no depot.
void CopyDepot(const DepotPaths& from, const DepotPaths& to);

/// Brings all files of the depot to the disk.
void SyncDepot(const DepotPaths& depot);

/// Removes the files that CopyDepot creates.
void RemoveCopy(const DepotPaths& copy);

/// A copy in a temporary directory, which is removed with the object.
class PrivateCopy {
public:
   explicit PrivateCopy(const DepotPaths& original);
   ~PrivateCopy();
   PrivateCopy(const PrivateCopy&) = delete;
   PrivateCopy& operator=(const PrivateCopy&) = delete;

   const DepotPaths& GetPaths() const { return _paths; }

private:
   const DepotPaths _paths;
};

} // namespace DepotTool
