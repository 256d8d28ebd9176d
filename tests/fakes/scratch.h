#pragma once

#include "corvax/system.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

/// A directory for one test, removed at its end. Paths end with "/".
class Scratch {
public:
   Scratch() : _path(Corvax::NewPosixFactory()->NewScratchDirectory()) {}
   ~Scratch() { Corvax::NewPosixFactory()->Remove(_path); }
   Scratch(const Scratch&) = delete;
   Scratch& operator=(const Scratch&) = delete;

   const std::string& Path() const { return _path; }

   std::string Read(const std::string& name) const
   {
      std::ifstream file(_path + name, std::ios::binary);
      return {std::istreambuf_iterator<char>(file), {}};
   }
   /// The files of a directory below this one, except lock files, by name.
   std::map<std::string, std::string> ReadAll(const std::string& directory = "") const
   {
      std::map<std::string, std::string> files;
      for (const auto& entry : std::filesystem::directory_iterator(_path + directory)) {
         const std::string name = entry.path().filename();
         if (entry.is_regular_file() && !name.ends_with(".lock")) {
            files[name] = Read(directory + name);
         }
      }
      return files;
   }
   void Write(const std::string& name, const std::string& bytes) const
   {
      std::ofstream(_path + name, std::ios::binary | std::ios::trunc) << bytes;
   }

private:
   const std::string _path;
};

/// The bytes of a text of hexadecimal digits and white space. "*N" after a byte stands for N such
/// bytes in all.
inline std::string FromHex(const std::string& text)
{
   std::string bytes;
   for (size_t i = 0; i < text.size();) {
      if (std::isspace(static_cast<unsigned char>(text[i]))) {
         ++i;
      } else if (text[i] == '*') {
         size_t used = 0;
         const size_t count = std::stoul(text.substr(i + 1), &used);
         bytes.append(count - 1, bytes.back());
         i += used + 1;
      } else {
         bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
         i += 2;
      }
   }
   return bytes;
}
