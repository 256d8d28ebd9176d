#pragma once

#include "tests/fakes/scratch.h"

#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

/// Takes ownership of an object of the kernel library.
template <class T>
std::unique_ptr<T> Owned(T* object)
{
   return std::unique_ptr<T>(object);
}

/// A tree of kernel files in a directory of its own.
class KernelTree {
public:
   /// Without a slash at the end.
   std::string GetRoot() const { return _scratch.Path().substr(0, _scratch.Path().size() - 1); }
   std::string Path(const std::string& path = "") const { return _scratch.Path() + path; }

   /// Overwrites a file in place, so that an open descriptor sees the new text, as with a kernel
   /// file. A path that ends with a slash creates a directory.
   void Write(const std::vector<std::pair<std::string, std::string>>& files) const
   {
      for (const auto& [path, text] : files) {
         std::filesystem::create_directories(std::filesystem::path(Path(path)).parent_path());
         _scratch.Write(path, text);
      }
   }
   void Write(const std::string& path, const std::string& text) const { Write({{path, text}}); }
   void MakeDirectory(const std::string& path) const { Write(path + "/", ""); }
   void Remove(const std::string& path) const { std::filesystem::remove_all(Path(path)); }
   void Link(const std::string& path, const std::string& target) const
   {
      MakeDirectory(std::filesystem::path(path).parent_path());
      std::filesystem::create_symlink(target, Path(path));
   }

private:
   const Scratch _scratch;
};
