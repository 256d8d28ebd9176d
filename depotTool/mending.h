#pragma once

#include "depotTool/depotPaths.h"
#include "depotTool/findings.h"
#include "metrix/statTypes.h"

#include <string>
#include <string_view>

namespace DepotTool {

/// A pass over a depot's files that mends what is wrong in them and reports it. Checking is the
/// same pass over a private copy, so a check reports exactly what repair does.
struct Mending {
   DepotPaths files;  ///< read and changed
   DepotPaths origin; ///< named in findings
   DepotPaths home;   ///< where the mended files will be used
   bool isKept;       ///< the files outlive the program, so changes have to reach the disk
   Metrix::TimeStamp newestAllowed;
   Findings& findings;

   /// `path` is one of `files`.
   void AddFault(const char* kind, std::string_view path, std::string where, std::string what,
                 std::string remedy, bool byRepair = true) const
   {
      findings.Add({Severity::FAULT, kind, GetOriginOf(path), std::move(where), std::move(what),
                    std::move(remedy), byRepair});
   }
   void AddNote(const char* kind, std::string_view path, std::string what, std::string advice) const
   {
      findings.Add(
         {Severity::NOTE, kind, GetOriginOf(path), "", std::move(what), std::move(advice), false});
   }

   /// The text with the paths of `files` turned into those of `origin`.
   std::string ToOrigin(std::string text) const
   {
      for (size_t pos = text.find(files.dir); pos != std::string::npos;
           pos = text.find(files.dir, pos + origin.dir.size())) {
         text.replace(pos, files.dir.size(), origin.dir);
      }
      return text;
   }
   std::string GetOriginOf(std::string_view path) const
   {
      return origin.dir + std::string(path.substr(files.dir.size()));
   }
};

} // namespace DepotTool
