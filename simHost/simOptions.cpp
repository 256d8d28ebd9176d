#include "simHost/simOptions.h"

#include "corvax/exception.h"
#include "corvax/format.h"

#include <charconv>
#include <limits>
#include <set>

namespace SimHost {

namespace {

using Corvax::Format;
using Corvax::InvalidArgumentException;

struct NumberKey {
   std::string_view name;
   uint64_t SimOptions::* field;
   uint64_t min;
   uint64_t max;
};

constexpr uint64_t kMaxVms = 20000;

constexpr NumberKey kNumberKeys[] = {
   {"vms", &SimOptions::vms, 0, kMaxVms},
   {"pools", &SimOptions::pools, 0, 2000},
   {"disks", &SimOptions::disks, 0, 256},
   {"nics", &SimOptions::nics, 0, 32},
   {"cpus", &SimOptions::cpus, 1, 4096},
   {"vcpus", &SimOptions::vcpus, 1, kMostVcpus},
   {"cards", &SimOptions::cards, 0, kMostCards},
   {"seed", &SimOptions::seed, 0, std::numeric_limits<uint64_t>::max()},
   {"events", &SimOptions::events, 0, 60000},
   {"stuck", &SimOptions::stuck, 0, kMaxVms},
   {"failing", &SimOptions::failing, 0, kMaxVms},
   {"late", &SimOptions::late, 0, 100},
};
constexpr std::string_view kScriptKey = "script";

std::string GetKeyNames()
{
   std::string names;
   for (const NumberKey& key : kNumberKeys) {
      names.append(key.name).append(", ");
   }
   return names.append(kScriptKey);
}

const NumberKey* FindNumberKey(std::string_view name)
{
   for (const NumberKey& key : kNumberKeys) {
      if (key.name == name) {
         return &key;
      }
   }
   return nullptr;
}

uint64_t ParseNumber(const NumberKey& key, std::string_view text)
{
   uint64_t number = 0;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
   if (error != std::errc() || end != text.data() + text.size() || number < key.min ||
       number > key.max) {
      throw InvalidArgumentException(
         Format("The simulated host's option %1 cannot be '%2': it must be a whole number from %3 "
                "to %4",
                key.name, text, key.min, key.max));
   }
   return number;
}

void SetOption(SimOptions& options, std::string_view name, std::string_view value)
{
   if (const NumberKey* const key = FindNumberKey(name)) {
      options.*key->field = ParseNumber(*key, value);
      return;
   }
   if (name != kScriptKey) {
      throw InvalidArgumentException(
         Format("The simulated host has no option '%1': its options are %2", name, GetKeyNames()));
   }
   if (value.empty()) {
      throw InvalidArgumentException(
         "The simulated host's option script cannot be '': it must be the path of a file");
   }
   options.script = value;
}

void CheckAtMostVms(std::string_view name, uint64_t number, uint64_t vms)
{
   if (number > vms) {
      throw InvalidArgumentException(
         Format("The simulated host's option %1 cannot be '%2': there are only %3 virtual machines",
                name, number, vms));
   }
}

} // namespace

SimOptions ParseSimOptions(std::string_view text)
{
   SimOptions options;
   std::set<std::string_view> seen;
   while (!text.empty()) {
      const size_t comma = text.find(',');
      const std::string_view part = text.substr(0, comma);
      text = comma == text.npos ? std::string_view() : text.substr(comma + 1);
      const size_t sign = part.find('=');
      if (sign == part.npos || (comma != part.npos && text.empty())) {
         throw InvalidArgumentException(Format("The simulated host's options are malformed at "
                                               "'%1': write KEY=VALUE,KEY=VALUE,... with the "
                                               "keys %2",
                                               part, GetKeyNames()));
      }
      SetOption(options, part.substr(0, sign), part.substr(sign + 1));
      if (!seen.insert(part.substr(0, sign)).second) {
         throw InvalidArgumentException(
            Format("The simulated host's option %1 is given twice: give each at most once",
                   part.substr(0, sign)));
      }
   }
   CheckAtMostVms("stuck", options.stuck, options.vms);
   CheckAtMostVms("failing", options.failing, options.vms);
   return options;
}

} // namespace SimHost
