#include "simHost/simActions.h"

#include "agentdCommon/wellKnown.h"
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

using AgentdCommon::moid_hostsystem;
using Corvax::Format;
using Corvax::InvalidArgumentException;
using Corvax::kMicrosecondsPerSecond;

enum class Target { VM, POOL, HOST };

struct ActionRow {
   SimAction action;
   std::string_view name;
   Target target;
   bool hasCount = false;
};

constexpr ActionRow kActions[] = {
   {SimAction::ON_VM, "on-vm", Target::VM},
   {SimAction::OFF_VM, "off-vm", Target::VM},
   {SimAction::SUSPEND_VM, "suspend-vm", Target::VM},
   {SimAction::UNREGISTER_VM, "unregister-vm", Target::VM},
   {SimAction::REGISTER_VM, "register-vm", Target::VM},
   {SimAction::DESTROY_POOL, "destroy-pool", Target::POOL},
   {SimAction::CREATE_POOL, "create-pool", Target::POOL},
   {SimAction::STUCK_VM, "stuck-vm", Target::VM},
   {SimAction::UNSTUCK_VM, "unstuck-vm", Target::VM},
   {SimAction::FAILING_VM, "failing-vm", Target::VM},
   {SimAction::WORKING_VM, "working-vm", Target::VM},
   {SimAction::HANG_VM, "hang-vm", Target::VM},
   {SimAction::UNHANG_VM, "unhang-vm", Target::VM},
   {SimAction::VCPUS_VM, "vcpus-vm", Target::VM, true},
   {SimAction::CARDS_VM, "cards-vm", Target::VM, true},
   {SimAction::DISKS_VM, "disks-vm", Target::VM, true},
   {SimAction::DISKS_HOST, "disks-host", Target::HOST, true},
   {SimAction::NICS_HOST, "nics-host", Target::HOST, true},
};

/// A random event of the first kind is followed by one of the second kind, which undoes it. With a
/// number, both are of the same kind.
struct Disruption {
   SimAction action;
   SimAction reverse;
};

constexpr Disruption kDisruptions[] = {
   {SimAction::OFF_VM, SimAction::ON_VM},
   {SimAction::SUSPEND_VM, SimAction::ON_VM},
   {SimAction::UNREGISTER_VM, SimAction::REGISTER_VM},
   {SimAction::STUCK_VM, SimAction::UNSTUCK_VM},
   {SimAction::FAILING_VM, SimAction::WORKING_VM},
   {SimAction::HANG_VM, SimAction::UNHANG_VM},
   {SimAction::VCPUS_VM, SimAction::VCPUS_VM},
   {SimAction::CARDS_VM, SimAction::CARDS_VM},
   {SimAction::DISKS_VM, SimAction::DISKS_VM},
   {SimAction::DESTROY_POOL, SimAction::CREATE_POOL},
   {SimAction::DISKS_HOST, SimAction::DISKS_HOST},
   {SimAction::NICS_HOST, SimAction::NICS_HOST},
};

const ActionRow& GetRow(SimAction action)
{
   return *std::ranges::find(kActions, action, &ActionRow::action);
}

/// A line of a script, for error messages.
struct Place {
   const std::string& path;
   size_t line;

   [[noreturn]] void Refuse(const std::string& reason) const
   {
      throw InvalidArgumentException(Format("%1:%2: %3", path, line, reason));
   }
};

const ActionRow& FindRow(std::string_view name, const Place& place)
{
   if (const auto action = FindAction(name)) {
      return GetRow(*action);
   }
   std::string names;
   for (const ActionRow& row : kActions) {
      names.append(names.empty() ? "" : ", ").append(row.name);
   }
   place.Refuse(Format("there is no action '%1': the actions are %2", name, names));
}

uint64_t ParseCount(const std::string& text, const CountRange& range, const Place& place)
{
   uint64_t count = 0;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
   if (error != std::errc() || end != text.data() + text.size() || count < range.min ||
       count > range.max) {
      place.Refuse(Format("'%1' is not a whole number from %2 to %3", text, range.min, range.max));
   }
   return count;
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

void CheckId(const std::string& id, Target target, const SimState& state, const Place& place)
{
   const SimOptions& options = state.GetOptions();
   if (target == Target::POOL && (state.FindPool(id) == nullptr || id == kRootPoolId)) {
      place.Refuse(Format("there is no resource pool '%1': the host has %2 below the root, named "
                          "%3, %4, ...",
                          id, options.pools, GetPoolId(1), GetPoolId(2)));
   }
   if (target == Target::VM && state.FindVm(id) == nullptr) {
      place.Refuse(Format("there is no virtual machine '%1': the host has %2, named %3, %4, ...",
                          id, options.vms, GetVmId(1), GetVmId(2)));
   }
   if (target == Target::HOST && id != moid_hostsystem) {
      place.Refuse(Format("there is no host '%1': the host is %2", id, moid_hostsystem));
   }
}

SimEvent ParseEvent(const std::vector<std::string>& words, const SimState& state,
                    const Place& place)
{
   constexpr size_t kWords = 3;
   if (words.size() < kWords) {
      place.Refuse("a line must be SECONDS ACTION ID");
   }
   const int64_t timeUs = ParseTimeUs(words[0], place);
   const ActionRow& row = FindRow(words[1], place);
   if (words.size() != kWords + (row.hasCount ? 1 : 0)) {
      place.Refuse(Format("with %1, a line must be SECONDS ACTION ID%2", row.name,
                          row.hasCount ? " NUMBER" : ""));
   }
   CheckId(words[2], row.target, state, place);
   const CountRange range = GetCountRange(state.GetOptions(), row.action);
   return {timeUs, row.action, words[2],
           row.hasCount ? ParseCount(words[kWords], range, place) : 0};
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

/// Whether the host has anything that the event may happen to.
bool IsPossible(const SimOptions& options, const Disruption& disruption)
{
   switch (GetRow(disruption.action).target) {
   case Target::VM:
      return options.vms > 0;
   case Target::POOL:
      return options.pools > 0;
   default:
      return true;
   }
}

std::string GetTargetId(const SimOptions& options, Target target, uint64_t mixed)
{
   switch (target) {
   case Target::VM:
      return GetVmId(Below(options.vms, mixed) + 1);
   case Target::POOL:
      return GetPoolId(Below(options.pools, mixed) + 1);
   default:
      return moid_hostsystem;
   }
}

uint64_t GetRandomCount(const CountRange& range, uint64_t mixed)
{
   constexpr uint64_t kMostMore = 3;
   const uint64_t max = std::min(range.max, range.atStart + kMostMore);
   return range.min + Below(max - range.min + 1, mixed);
}

} // namespace

std::optional<SimAction> FindAction(std::string_view name)
{
   const auto* const found = std::ranges::find(kActions, name, &ActionRow::name);
   return found == std::end(kActions) ? std::nullopt : std::optional(found->action);
}

std::string_view GetActionName(SimAction action)
{
   return GetRow(action).name;
}

CountRange GetCountRange(const SimOptions& options, SimAction action)
{
   const uint64_t images = std::min(options.disks, kMostImages);
   switch (action) {
   case SimAction::VCPUS_VM:
      return {1, kMostVcpus, options.vcpus};
   case SimAction::CARDS_VM:
      return {0, kMostCards, options.cards};
   case SimAction::DISKS_VM:
      return {0, images, images};
   case SimAction::DISKS_HOST:
      return {0, options.disks, options.disks};
   case SimAction::NICS_HOST:
      return {0, options.nics, options.nics};
   default:
      return {0, 0, 0};
   }
}

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
      SimEvent event = ParseEvent(words, state, place);
      // Behind those of the same time, which keep the order of their lines.
      events.insert(std::ranges::upper_bound(events, event.timeUs, {}, &SimEvent::timeUs),
                    std::move(event));
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
   std::vector<Disruption> kinds;
   std::ranges::copy_if(kDisruptions, std::back_inserter(kinds),
                        [&](const Disruption& kind) { return IsPossible(options, kind); });
   const Disruption& kind = kinds[Below(kinds.size(), choice.hash)];
   const CountRange range = GetCountRange(options, kind.action);
   const uint64_t target = Mix(choice.hash);
   return {
      static_cast<int64_t>((number * kMinuteUs + Below(kMinuteUs, time.hash)) / options.events),
      isDisruption ? kind.action : kind.reverse,
      GetTargetId(options, GetRow(kind.action).target, target),
      isDisruption ? GetRandomCount(range, Mix(target)) : range.atStart};
}

} // namespace SimHost
