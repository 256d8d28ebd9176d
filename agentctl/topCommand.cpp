#include "agentctl/topCommand.h"

#include "agentctl/printable.h"
#include "agentctl/screen.h"
#include "agentctl/top.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <algorithm>
#include <chrono>

namespace Agentctl {

namespace {

using Corvax::DateTime;
using Corvax::Format;
using SteadyClock = std::chrono::steady_clock;

int64_t GetPauseSec(const TopView& view)
{
   const int64_t newestUs = view.newest ? view.newest->GetUtcMicroseconds() : 0;
   return GetSecondsToNext(newestUs / 1000000, DateTime::Now().GetUtcMicroseconds() / 1000000,
                           view.intervalSec);
}

const char* GetTitle(SortKey key)
{
   switch (key) {
   case SortKey::CPU:
      return "CPU";
   case SortKey::MEMORY:
      return "memory";
   case SortKey::DISK:
      return "disk";
   case SortKey::NETWORK:
      return "network";
   case SortKey::READY:
      return "ready time";
   }
   Corvax::NotReached("every sort key has its title");
}

std::string FormatNewest(const TopView& view)
{
   return view.newest ? "figures of " + FormatTime(*view.newest, false) : "no figures yet";
}

/// The table on the screen, with what its user and its server do to it.
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
         const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(_next - SteadyClock::now()).count();
         const Screen::Event event = left > 0 ? _screen.Wait(left) : Screen::Event();
         if (event.key == 'q') {
            return;
         }
         _key = GetSortKey(event.key).value_or(_key);
         if (SteadyClock::now() >= _next) {
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

   void ScheduleNext() { _next = SteadyClock::now() + std::chrono::seconds(GetPauseSec(_view)); }

   void Draw()
   {
      SortRows(_view.rows, _key);
      const Screen::Size size = _screen.GetSize();
      std::vector<std::string> lines = {
         Format("agentctl top  %1  %2  by %3", Printable(_server), FormatNewest(_view),
                GetTitle(_key)),
         _failure.empty() ? "sort: c CPU  m memory  d disk  n network  r ready   q quit"
                          : _failure};
      std::vector<std::string> table = FormatRows(_view.rows, size.columns);
      const size_t room = size.lines > lines.size() ? size.lines - lines.size() : 0;
      if (table.size() > room && room > 1) {
         const size_t hidden = table.size() - (room - 1);
         table.resize(room - 1);
         table.push_back(Format("... %1 more", hidden));
      }
      lines.insert(lines.end(), table.begin(), table.end());
      _screen.Show(lines);
   }

   const std::string _server;
   Screen& _screen;
   TopSource& _source;
   TopView _view;
   SortKey _key = SortKey::CPU;
   std::string _failure;
   SteadyClock::time_point _next;
};

} // namespace

void PrintTop(Api& api, int64_t count, Output& output, const WaitFunction& wait)
{
   TopSource source(api);
   for (int64_t i = 0; i < count; ++i) {
      TopView view = source.Read();
      SortRows(view.rows, SortKey::CPU);
      std::string text = i > 0 ? "\n" : "";
      for (const std::string& line : FormatRows(view.rows, std::nullopt)) {
         text += line + "\n";
      }
      output.Write(text);
      if (i + 1 < count && !wait(GetPauseSec(view))) {
         return;
      }
   }
}

void ShowTop(Api& api, const std::string& server, Output& output)
{
   TopSource source(api);
   TopView view = source.Read(); // before the screen, so that a failure is seen
   Screen screen(output);
   LiveTop(server, screen, source, std::move(view)).Run();
}

} // namespace Agentctl
