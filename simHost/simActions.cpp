#include "simHost/simActions.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>

namespace SimHost {

namespace {

using Corvax::Format;
using Corvax::InvalidArgumentException;

constexpr int64_t kMicroseconds = 1'000'000;

struct ActionRow {
   SimAction action;
   std::string_view name;
   bool isOfPool;
};

constexpr ActionRow kActions[] = {
   {SimAction::ON_VM, "on-vm", false},
   {SimAction::OFF_VM, "off-vm", false},
   {SimAction::SUSPEND_VM, "suspend-vm", false},
   {SimAction::UNREGISTER_VM, "unregister-vm", false},
   {SimAction::REGISTER_VM, "register-vm", false},
   {SimAction::DESTROY_POOL, "destroy-pool", true},
   {SimAction::CREATE_POOL, "create-pool", true},
   {SimAction::STUCK_VM, "stuck-vm", false},
   {SimAction::UNSTUCK_VM, "unstuck-vm", false},
   {SimAction::FAILING_VM, "failing-vm", false},
   {SimAction::WORKING_VM, "working-vm", false},
};

/// What random events take away, and what gives it back.
struct Reversible {
   SimAction action;
   SimAction reverse;
   bool isOfPool;
};

constexpr Reversible kReversibles[] = {
   {SimAction::OFF_VM, SimAction::ON_VM, false},
   {SimAction::SUSPEND_VM, SimAction::ON_VM, false},
   {SimAction::UNREGISTER_VM, SimAction::REGISTER_VM, false},
   {SimAction::STUCK_VM, SimAction::UNSTUCK_VM, false},
   {SimAction::FAILING_VM, SimAction::WORKING_VM, false},
   {SimAction::DESTROY_POOL, SimAction::CREATE_POOL, true},
};
static_assert(std::size(kReversibles) > 1 && kReversibles[std::size(kReversibles) - 1].isOfPool,
              "the actions of machines stand before those of pools");

/// A place in a script, for what is wrong there.
struct Place {
   const std::string& path;
   size_t line;

   [[noreturn]] void Refuse(const std::string& what) const
   {
      throw InvalidArgumentException(Format("%1:%2: %3", path, line, what));
   }
};

const ActionRow& FindAction(std::string_view name, const Place& place)
{
   const auto found = std::ranges::find(kActions, name, &ActionRow::name);
   if (found != std::end(kActions)) {
      return *found;
   }
   std::string names;
   for (const ActionRow& row : kActions) {
      names.append(names.empty() ? "" : ", ").append(row.name);
   }
   place.Refuse(Format("there is no action '%1': the actions are %2", name, names));
}

int64_t ParseTimeUs(const std::string& text, const Place& place)
{
   constexpr int64_t kMostSec = 1'000'000'000;
   int64_t timeSec = -1;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), timeSec);
   if (error != std::errc() || end != text.data() + text.size() || timeSec < 0 ||
       timeSec > kMostSec) {
      place.Refuse(Format("'%1' is no whole number of seconds from 0 to %2", text, kMostSec));
   }
   return timeSec * kMicroseconds;
}

void CheckId(const std::string& id, bool isOfPool, const SimState& state, const Place& place)
{
   const SimOptions& options = state.GetOptions();
   if (isOfPool && (state.FindPool(id) == nullptr || id == kRootPoolId)) {
      place.Refuse(Format("'%1' is none of the %2 resource pools below the root, which are %3, "
                          "%4, ...",
                          id, options.pools, GetPoolId(1), GetPoolId(2)));
   }
   if (!isOfPool && state.FindVm(id) == nullptr) {
      place.Refuse(Format("'%1' is none of the %2 virtual machines, which are %3, %4, ...", id,
                          options.vms, GetVmId(1), GetVmId(2)));
   }
}

std::string ReadFile(const std::string& path)
{
   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(path, Corvax::FILE_READ, Corvax::FileCreation::OPEN_EXISTING);
   std::string text(file->GetSize(), '\0');
   text.resize(file->Read(text.data(), text.size()));
   return text;
}

/// Whether the event of that number takes something away; the others give back.
constexpr uint64_t kReverseDistance = 7; // odd: from what gives back to what has taken away
bool TakesAway(uint64_t number)
{
   return number % 2 == 0 || number < kReverseDistance;
}

} // namespace

std::vector<SimEvent> LoadScript(const std::string& path, const SimState& state)
{
   std::istringstream lines(ReadFile(path));
   std::vector<SimEvent> events;
   std::string line;
   for (size_t number = 1; std::getline(lines, line); ++number) {
      std::istringstream text(line.substr(0, line.find('#')));
      const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
      const Place place{path, number};
      if (words.empty()) {
         continue;
      }
      if (words.size() != 3) {
         place.Refuse("a line is SECONDS ACTION ID");
      }
      const int64_t timeUs = ParseTimeUs(words[0], place);
      const ActionRow& action = FindAction(words[1], place);
      CheckId(words[2], action.isOfPool, state, place);
      events.push_back({timeUs, action.action, words[2]});
   }
   std::ranges::stable_sort(events, {}, &SimEvent::timeUs);
   return events;
}

bool HasRandomEvents(const SimOptions& options)
{
   return options.events > 0 && (options.vms > 0 || options.pools > 0);
}

SimEvent GetRandomEvent(const SimOptions& options, uint64_t number)
{
   constexpr uint64_t kMinuteUs = 60 * kMicroseconds;
   const bool takesAway = TakesAway(number);
   const EntityKey time = MakeKey(options.seed, "events").Part(number);
   const EntityKey what =
      MakeKey(options.seed, "events").Part(takesAway ? number : number - kReverseDistance).Part(0);
   // Where there are only machines, or only pools, their actions alone come into question.
   const size_t first = options.vms > 0 ? 0 : std::size(kReversibles) - 1;
   const size_t last = options.pools > 0 ? std::size(kReversibles) : std::size(kReversibles) - 1;
   const Reversible& kind = kReversibles[first + Below(last - first, what.hash)];
   const uint64_t target = Mix(what.hash);
   return {
      static_cast<int64_t>((number * kMinuteUs + Below(kMinuteUs, time.hash)) / options.events),
      takesAway ? kind.action : kind.reverse,
      kind.isOfPool ? GetPoolId(Below(options.pools, target) + 1)
                    : GetVmId(Below(options.vms, target) + 1)};
}

} // namespace SimHost
