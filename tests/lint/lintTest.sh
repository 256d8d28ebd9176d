#!/usr/bin/env bash
# Plants faults in a copy of the sources and expects scripts/lint to find each of them.
#    lintTest.sh SOURCE_DIR
set -euo pipefail
source=$1
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
git -C "$source" ls-files -z | (cd "$source" && xargs -0 cp --parents -t "$copy")
cd "$copy"
git init -q .

fail() {
   echo "$*" >&2
   exit 1
}

# plant FILE FINDING SED_COMMAND: after the edit, lint of the file ends with 1 and prints the finding.
plant() {
   local file=$1 finding=$2 edit=$3 status=0
   cp "$file" "$copy/original"
   sed -i "$edit" "$file"
   ! cmp -s "$file" "$copy/original" || fail "the edit '$edit' changes nothing in $file"
   scripts/lint "$file" >"$copy/output" 2>&1 || status=$?
   cp "$copy/original" "$file"
   [ "$status" -eq 1 ] && grep -qE "$finding" "$copy/output" ||
      fail "lint ends with $status and does not find '$finding' in $file: $(cat "$copy/output")"
}

scripts/lint metrix/slotUsageMap.h agentd/backend.cpp >output 2>&1 || fail "red without a fault: $(cat output)"

plant agentd/backend.cpp 'agentd does not see metrix/statsDepot' \
   '1i #include <metrix/statsDepot.h>'
plant linuxHost/libvirt/domainXml.cpp 'linuxHost/libvirt does not see metrix/statsDepot' \
   '1i #include <metrix/statsDepot.h>'
plant metrix/slotUsageMap.h 'metrix/slotUsageMap does not see metrix/baseStatsCollector' \
   '/#include "corvax/a #include "metrix/baseStatsCollector.h"'
plant metrix/statsStore.h 'metrix/statsStore does not take files' \
   '/#include <string>/i #include <sys/stat.h>'
plant corvax/lockFile.h 'corvax/lockFile.h: .*Descriptor' '/#include "corvax/d'
plant metrix/slotUsageMap.h "invalid case style for private member 'used_Slots'" \
   's/_usageVector;/&\n   int used_Slots = 0;/'
plant metrix/slotUsageMap.cpp "parameter 'spare' is unused" \
   's/^int SlotUsageMap::FindFirstFreeSlot/static int Same(int number, int spare) { return number; }\n\n&/'
plant metrix/slotUsageMap.h '^metrix/slotUsageMap.h:[0-9]*: 1[0-9]{2} columns' \
   "/^class SlotUsageMap/i // $(printf '%0100d' 0)"
plant metrix/slotUsageMap.h 'clang-format' 's/^   int GetSize/int  GetSize/'
echo "passed: every planted fault is found"
