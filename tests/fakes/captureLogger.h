#pragma once

#include "corvax/logger.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

/// Keeps the logged lines as "LEVEL text".
class CaptureLogger : public Corvax::Logger, public Corvax::ObjectImpl {
public:
   bool IsEnabled(int /*level*/) const override { return true; }
   void SetLevel(const std::string& /*levelName*/) override {}
   void Write(int level, const std::string& text) override
   {
      const std::lock_guard guard(_mutex);
      _lines.push_back(std::to_string(level) + " " + text);
   }

   /// Lines that contain the text.
   int Count(const std::string& text) const
   {
      const std::lock_guard guard(_mutex);
      return static_cast<int>(std::ranges::count_if(
         _lines, [&text](const std::string& line) { return line.find(text) != line.npos; }));
   }
   /// Lines of that level.
   int CountLevel(int level) const
   {
      const std::lock_guard guard(_mutex);
      return static_cast<int>(std::ranges::count_if(_lines, [level](const std::string& line) {
         return line.starts_with(std::to_string(level) + " ");
      }));
   }
   void Clear() { _lines.clear(); }

private:
   mutable std::mutex _mutex;
   std::vector<std::string> _lines;
};
