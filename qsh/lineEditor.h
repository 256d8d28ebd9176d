#pragma once

#include <cwchar>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct editline;
struct history;

namespace Qsh {

/// Reads lines from the terminal, with editing, history and completion.
///
/// Ctrl-C drops the line being edited; while a command runs, it ends the process as usual.
class LineEditor {
public:
   /// Returns all words that can follow these words of a command, which are complete.
   using Completer = std::function<std::vector<std::string>(const std::string& wordsBefore)>;

   /// Keeps the history in memory, and in the file unless its name is empty.
   LineEditor(std::string prompt, std::string historyFile, Completer completer);
   ~LineEditor();
   LineEditor(const LineEditor&) = delete;
   LineEditor& operator=(const LineEditor&) = delete;

   /// Unset at the end of input (Ctrl-D); an empty line if the line was dropped.
   std::optional<std::string> ReadLine();

private:
   static char* GetPrompt(editline* edit);
   static unsigned char OnTab(editline* edit, std::wint_t character);
   static unsigned char OnInterrupt(editline* edit, std::wint_t character);
   static unsigned char OnSuspend(editline* edit, std::wint_t character);
   unsigned char Complete();
   void BindKeys();
   void Remember(const std::string& line);

   std::string _prompt;
   const std::string _historyFile;
   const Completer _completer;
   const std::unique_ptr<::history, void (*)(::history*)> _history;
   const std::unique_ptr<editline, void (*)(editline*)> _edit;
   bool _isDropped = false;
};

} // namespace Qsh
