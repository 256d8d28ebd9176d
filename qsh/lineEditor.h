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
/// Ctrl-C while a line is edited drops it; while a command runs it ends the process as usual.
class LineEditor {
public:
   /// All words that could stand behind these whole words of the same command.
   using Candidates = std::function<std::vector<std::string>(const std::string& wordsBefore)>;

   /// The history is kept in memory, and in the file unless its name is empty.
   LineEditor(std::string prompt, std::string historyFile, Candidates candidates);
   ~LineEditor();
   LineEditor(const LineEditor&) = delete;
   LineEditor& operator=(const LineEditor&) = delete;

   /// Nothing at the end of input (Ctrl-D); an empty line for one that was dropped.
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
   const Candidates _candidates;
   const std::unique_ptr<::history, void (*)(::history*)> _history;
   const std::unique_ptr<editline, void (*)(editline*)> _edit;
   bool _isDropped = false;
};

} // namespace Qsh
