#include "agentctl/topCommand.h"

#include "agentctl/options.h"
#include "agentctl/screen.h"
#include "agentctl/top.h"
#include "agentctl/valueFormat.h"
#include "console/printable.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"

namespace Agentctl {

namespace {

using Console::Printable;
using Corvax::Format;
using Corvax::System;

int64_t GetPauseSec(const TopView& view)
{
   return GetSecondsToNext(view.newest, view.intervalSec);
}

/// The screen's line that explains the keys.
std::string FormatKeys()
{
   std::string text = "sort:";
   for (const SortKey& key : kSortKeys) {
      text += Format(" %1 %2 ", std::string(1, key.key), key.title);
   }
   return text + "  q quit";
}

std::string FormatNewest(const TopView& view)
{
   return view.newest ? "figures of " + FormatTime(*view.newest, false) : "no figures yet";
}

/// The table on the screen, redrawn for each key, change of the size and response.
class LiveTop {
public:
   LiveTop(const std::string& server, Screen& screen, TopSource& source, TopView view)
      : _server(server), _screen(screen), _source(source), _view(std::move(view))
   {
   }

   void Run()
   {
      ScheduleNext();
      while (true) {
         Draw();
         const int64_t leftUs = _nextUs - System::GetMonotonicTime();
         const Screen::Event event = _screen.Wait((leftUs + 999) / 1000);
         if (event.key == 'q') {
            return;
         }
         if (const SortKey* const key = FindSortKey(event.key)) {
            _key = key;
         }
         if (System::GetMonotonicTime() >= _nextUs) {
            Refresh();
         }
      }
   }

private:
   void Refresh()
   {
      try {
         _view = _source.Read();
         _failure.clear();
      } catch (const Corvax::Exception& e) {
         _failure = Printable(e.GetMessage());
      }
      ScheduleNext();
   }

   void ScheduleNext()
   {
      _nextUs = System::GetMonotonicTime() + GetPauseSec(_view) * Corvax::kMicrosecondsPerSecond;
   }

   void Draw()
   {
      SortRows(_view.rows, *_key);
      const Screen::Size size = _screen.GetSize();
      std::vector<std::string> lines = {Format("%1 top  %2  %3  by %4", kProgramName,
                                               Printable(_server), FormatNewest(_view),
                                               _key->title),
                                        _failure.empty() ? FormatKeys() : _failure};
      TextTable table = ToTable(_view.rows);
      table.ShrinkTo(size.columns);
      std::vector<std::string> rows = table.TakeLines();
      const size_t room = size.lines > lines.size() ? size.lines - lines.size() : 0;
      if (rows.size() > room && room > 1) {
         const size_t hidden = rows.size() - (room - 1);
         rows.resize(room - 1);
         rows.push_back(Format("... %1 more", hidden));
      }
      lines.insert(lines.end(), rows.begin(), rows.end());
      _screen.Show(lines);
   }

   const std::string _server;
   Screen& _screen;
   TopSource& _source;
   TopView _view;
   const SortKey* _key = kSortKeys;
   std::string _failure;
   int64_t _nextUs = 0; ///< monotonic time of the next request
};

} // namespace

void PrintTop(Api& api, int64_t count, Output& output, const WaitFunction& wait)
{
   TopSource source(api);
   for (int64_t i = 0; i < count; ++i) {
      TopView view = source.Read();
      SortRows(view.rows, kSortKeys[0]);
      output.Write((i > 0 ? "\n" : "") + ToTable(view.rows).TakeText());
      if (i + 1 < count && !wait(GetPauseSec(view))) {
         return;
      }
   }
}

void ShowTop(Api& api, const std::string& server, Output& output)
{
   TopSource source(api);
   TopView view = source.Read(); // before the screen hides the message of a failure
   Screen screen(output);
   LiveTop(server, screen, source, std::move(view)).Run();
}

} // namespace Agentctl
