#include "simHost/simActions.h"

#include "corvax/clock.h"
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
using Corvax::kMicrosecondsPerSecond;

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

/// A random event of the first kind is followed by one of the second kind, which undoes it.
struct Disruption {
   SimAction action;
   SimAction reverse;
   bool isOfPool;
};

constexpr Disruption kDisruptions[] = {
   {SimAction::OFF_VM, SimAction::ON_VM, false},
   {SimAction::SUSPEND_VM, SimAction::ON_VM, false},
   {SimAction::UNREGISTER_VM, SimAction::REGISTER_VM, false},
   {SimAction::STUCK_VM, SimAction::UNSTUCK_VM, false},
   {SimAction::FAILING_VM, SimAction::WORKING_VM, false},
   {SimAction::DESTROY_POOL, SimAction::CREATE_POOL, true},
};
static_assert(std::size(kDisruptions) > 1 && kDisruptions[std::size(kDisruptions) - 1].isOfPool,
              "the pools' disruption is the last one");

/// A line of a script, for error messages.
struct Place {
   const std::string& path;
   size_t line;

   [[noreturn]] void Refuse(const std::string& reason) const
   {
      throw InvalidArgumentException(Format("%1:%2: %3", path, line, reason));
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
   constexpr int64_t kMaxSec = 1'000'000'000;
   int64_t timeSec = -1;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), timeSec);
   if (error != std::errc() || end != text.data() + text.size() || timeSec < 0 ||
       timeSec > kMaxSec) {
      place.Refuse(Format("'%1' is not a whole number of seconds from 0 to %2", text, kMaxSec));
   }
   return timeSec * kMicrosecondsPerSecond;
}

void CheckId(const std::string& id, bool isOfPool, const SimState& state, const Place& place)
{
   const SimOptions& options = state.GetOptions();
   if (isOfPool && (state.FindPool(id) == nullptr || id == kRootPoolId)) {
      place.Refuse(Format("there is no resource pool '%1': the host has %2 below the root, named "
                          "%3, %4, ...",
                          id, options.pools, GetPoolId(1), GetPoolId(2)));
   }
   if (!isOfPool && state.FindVm(id) == nullptr) {
      place.Refuse(Format("there is no virtual machine '%1': the host has %2, named %3, %4, ...",
                          id, options.vms, GetVmId(1), GetVmId(2)));
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

/// From a disruption to the event that undoes it; odd, because from this number on disruptions have
/// even numbers.
constexpr uint64_t kReverseDistance = 7;

bool IsDisruption(uint64_t number)
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
         place.Refuse("a line must be SECONDS ACTION ID");
      }
      const int64_t timeUs = ParseTimeUs(words[0], place);
      const ActionRow& action = FindAction(words[1], place);
      CheckId(words[2], action.isOfPool, state, place);
      // Behind those of the same time, which keep the order of their lines.
      events.insert(std::ranges::upper_bound(events, timeUs, {}, &SimEvent::timeUs),
                    {timeUs, action.action, words[2]});
   }
   return events;
}

bool HasRandomEvents(const SimOptions& options)
{
   return options.events > 0 && (options.vms > 0 || options.pools > 0);
}

SimEvent GetRandomEvent(const SimOptions& options, uint64_t number)
{
   constexpr uint64_t kMinuteUs = 60 * kMicrosecondsPerSecond;
   const bool isDisruption = IsDisruption(number);
   const uint64_t disruption = isDisruption ? number : number - kReverseDistance;
   const EntityKey time = MakeKey(options.seed, "events").Part(number);
   const EntityKey choice = MakeKey(options.seed, "events").Part(disruption).Part(0);
   // A host without VMs has pool events only, and the other way round.
   const size_t first = options.vms > 0 ? 0 : std::size(kDisruptions) - 1;
   const size_t last = options.pools > 0 ? std::size(kDisruptions) : std::size(kDisruptions) - 1;
   const Disruption& kind = kDisruptions[first + Below(last - first, choice.hash)];
   const uint64_t target = Mix(choice.hash);
   return {
      static_cast<int64_t>((number * kMinuteUs + Below(kMinuteUs, time.hash)) / options.events),
      isDisruption ? kind.action : kind.reverse,
      kind.isOfPool ? GetPoolId(Below(options.pools, target) + 1)
                    : GetVmId(Below(options.vms, target) + 1)};
}

} // namespace SimHost
