#include "qsh/lineEditor.h"

#include "corvax/exception.h"
#include "qsh/options.h"

#include <histedit.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <string_view>

namespace Qsh {

namespace {

constexpr int kHistoryLines = 1000;
constexpr std::string_view kBlanks = " \t";

std::string Trimmed(std::string_view text)
{
   const size_t first = text.find_first_not_of(kBlanks);
   const size_t last = text.find_last_not_of(kBlanks);
   return first == text.npos ? "" : std::string(text.substr(first, last - first + 1));
}

std::string_view CommonStart(std::string_view a, std::string_view b)
{
   const auto end = std::ranges::mismatch(a, b).in1;
   return a.substr(0, static_cast<size_t>(end - a.begin()));
}

LineEditor& SelfOf(EditLine* edit)
{
   void* self = nullptr;
   ::el_get(edit, EL_CLIENTDATA, &self);
   return *static_cast<LineEditor*>(self);
}

} // namespace

LineEditor::LineEditor(std::string prompt, std::string historyFile, Completer completer)
   : _prompt(std::move(prompt)), _historyFile(std::move(historyFile)),
     _completer(std::move(completer)), _history(::history_init(), ::history_end),
     _edit(::el_init(kProgramName, stdin, stdout, stderr), ::el_end)
{
   if (!_history || !_edit) {
      throw Corvax::Exception("Cannot set up line editing on the terminal");
   }
   std::setlocale(LC_CTYPE, ""); // typed characters may have several bytes
   HistEvent event;
   ::history(_history.get(), &event, H_SETSIZE, kHistoryLines);
   ::history(_history.get(), &event, H_SETUNIQUE, 1);
   if (!_historyFile.empty()) {
      ::history(_history.get(), &event, H_LOAD, _historyFile.c_str()); // fails if there is none yet
   }
   BindKeys();
}

LineEditor::~LineEditor() = default;

void LineEditor::BindKeys()
{
   EditLine* const edit = _edit.get();
   ::el_set(edit, EL_CLIENTDATA, this);
   ::el_set(edit, EL_PROMPT, &LineEditor::GetPrompt);
   ::el_set(edit, EL_EDITOR, "emacs");
   ::el_set(edit, EL_SIGNAL, 1); // restores the terminal if a signal ends the process
   ::el_set(edit, EL_HIST, ::history, _history.get());
   // The wide form, because the other one leaks a copy of each text.
   ::el_wset(edit, EL_ADDFN, L"qsh-complete", L"Complete a command", &LineEditor::OnTab);
   ::el_wset(edit, EL_ADDFN, L"qsh-drop-line", L"Drop the line", &LineEditor::OnInterrupt);
   ::el_wset(edit, EL_ADDFN, L"qsh-suspend", L"Suspend the shell", &LineEditor::OnSuspend);
   // While a line is being edited, Ctrl-C and Ctrl-Z are keys and do not send signals.
   ::el_set(edit, EL_SETTY, "-d", "-isig", nullptr);
   ::el_set(edit, EL_BIND, "^I", "qsh-complete", nullptr);
   ::el_set(edit, EL_BIND, "^C", "qsh-drop-line", nullptr);
   ::el_set(edit, EL_BIND, "^Z", "qsh-suspend", nullptr);
   ::el_set(edit, EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

std::optional<std::string> LineEditor::ReadLine()
{
   _isDropped = false;
   // The library does this only after it has shown the prompt: a Ctrl-C in between would be a
   // signal.
   ::el_set(_edit.get(), EL_PREP_TERM, 1);
   int length = 0;
   const char* const text = ::el_gets(_edit.get(), &length);
   if (_isDropped) { // checked first: dropping an empty line looks like the end of input
      std::puts("^C");
      return std::string();
   }
   if (text == nullptr || length <= 0) {
      std::puts(""); // later output starts on a new line
      return std::nullopt;
   }
   std::string line(text, static_cast<size_t>(length));
   if (line.ends_with('\n')) {
      line.pop_back();
   }
   if (!Trimmed(line).empty()) {
      Remember(line);
   }
   return line;
}

void LineEditor::Remember(const std::string& line)
{
   HistEvent event;
   ::history(_history.get(), &event, H_ENTER, line.c_str());
   // Saved before the command runs, which a signal may end. A failure to save is ignored.
   if (!_historyFile.empty()) {
      ::history(_history.get(), &event, H_SAVE, _historyFile.c_str());
   }
}

char* LineEditor::GetPrompt(EditLine* edit)
{
   return SelfOf(edit)._prompt.data();
}

unsigned char LineEditor::OnInterrupt(EditLine* edit, wint_t /*character*/)
{
   SelfOf(edit)._isDropped = true;
   return CC_NEWLINE;
}

unsigned char LineEditor::OnSuspend(EditLine* /*edit*/, wint_t /*character*/)
{
   std::raise(SIGTSTP); // the library's handler restores the terminal and redraws the line later
   return CC_NORM;
}

unsigned char LineEditor::OnTab(EditLine* edit, wint_t /*character*/)
{
   return SelfOf(edit).Complete();
}

unsigned char LineEditor::Complete()
{
   const LineInfo* const info = ::el_line(_edit.get());
   std::string_view command(info->buffer, static_cast<size_t>(info->cursor - info->buffer));
   command.remove_prefix(command.rfind(';') + 1); // npos + 1 is 0
   const std::string word(command.substr(command.find_last_of(kBlanks) + 1));
   command.remove_suffix(word.size());

   std::vector<std::string> matches = _completer(Trimmed(command));
   std::erase_if(matches, [&word](const std::string& match) { return !match.starts_with(word); });
   if (matches.empty()) {
      return CC_ERROR;
   }
   std::string_view common = matches.front();
   for (const std::string& match : matches) {
      common = CommonStart(common, match);
   }
   std::string added(common.substr(word.size()));
   if (matches.size() == 1) {
      added += ' ';
   }
   if (!added.empty()) {
      return ::el_insertstr(_edit.get(), added.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
   }
   std::puts("");
   for (const std::string& match : matches) {
      std::puts(match.c_str());
   }
   return CC_REDISPLAY;
}

} // namespace Qsh
