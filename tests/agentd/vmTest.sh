#!/usr/bin/env bash
# The agent with real virtual machines: `vmTest.sh BUILD_DIR` puts three VMs of a private libvirtd
# through all their states and compares the agent's figures with QEMU, libvirt and the kernel.
#
# No verdict depends on the speed of the machine: every wait has a condition to wait for and fails
# only when that never happens, and a figure of the agent must lie between two values of its source,
# one read before the agent's reading and one after.
set -euo pipefail
source "$(dirname "$0")/vm/lab.sh"
labPossible || exit 77 # reported as skipped
labEnter "$@"
build=$1
dir=$(mktemp -d)
agent=
gold=$lab-gold web=$lab-gold/web silver=$lab-silver
hung=() # processes that are stopped now

cleanUp() {
   [ ${#hung[@]} -eq 0 ] || kill -CONT "${hung[@]}" 2>/dev/null || true
   [ -z "$agent" ] || kill "$agent" 2>/dev/null || true
   labDown
   rm -rf "$dir"
}
trap cleanUp EXIT

fail() {
   echo "FAILED: $*" >&2
   tail -n 60 "$dir/log" >&2 || true
   exit 1
}

step() { echo "$(date +%T) $*"; }
waitFor() { labWait "$@" || fail "this never happens: $*"; }
ctl() { "$build/bin/agentctl" --server "http://127.0.0.1:$port" "$@"; }
logged() { grep "$1" "$dir/log" >/dev/null; }

entity() { # ID: its line of the list, "TYPE NAME STATE PARENT"
   ctl entities >"$dir/entities"
   awk -v id="$1" '$2 == id { print $1, $3, $4, $5; found = 1 } END { exit !found }' "$dir/entities"
}

isEntity() { [ "$(entity "$1")" = "$2" ]; }
isGone() { ! entity "$1" >/dev/null; }

# Rows of agentctl as "SECOND VALUE".
query() { # ENTITY METRIC OPTION...
   ctl query "$@" --format csv 2>/dev/null | tail -n +2 | tr -d '\r' | while IFS=, read -r time value; do
      [ -z "$value" ] || echo "$(date -d "$time" +%s) $value"
   done || true
}

samples() { query "$1" "$2" --interval 1 --from "$3" --to "${4:-$(date +%s)}"; } # ENTITY METRIC FROM [TO]
hasSamples() { [ "$(samples "$1" "$2" "$3" | wc -l)" -ge "$4" ]; }               # ENTITY METRIC FROM COUNT

# The wait ends with a reading that the agent took after the given second: a collection at second T
# uses a snapshot of the VMs taken at T - 1 or later.
isRead() { # ENTITY METRIC SECOND: sets $readAt and $reading
   read -r readAt reading < <(query "$1" "$2" --interval 0) && [ "$readAt" -ge $(($3 + 2)) ]
}

# Sets $reading to a raw reading of a counter that only grows, $low and $high to what its source had
# before and after it, in the same unit.
bracket() { # ENTITY METRIC DIVISOR SOURCE...
   local entity=$1 metric=$2 divisor=$3
   shift 3
   low=$(($("$@") / divisor))
   waitFor isRead "$entity" "$metric" "$(date +%s)"
   high=$(($("$@") / divisor))
}

checkBetween() { # ENTITY METRIC DIVISOR SOURCE...
   bracket "$@"
   [ "$low" -le "$reading" ] && [ "$reading" -le "$high" ] ||
      fail "$2 of $1 is $reading, not between $low and $high"
   [ "$reading" -gt 0 ] || fail "$2 of $1 does not move"
}

cpuMs() { # VM...: CPU time of their processes
   local vm sum=0
   for vm; do
      sum=$((sum + $(labCpuTicks "$vm")))
   done
   echo $((sum * 1000 / $(getconf CLK_TCK)))
}

# What cpu.usagemhz has grown by since $first (LOW READING HIGH). Repeated until the two bounds
# differ by a tenth at most, which takes the longer the busier the machine is.
hasGrown() { # ENTITY VM...: sets $least, $grown and $most
   bracket "$1" cpu.usagemhz.none 1 cpuMs "${@:2}"
   least=$((low - first[2]))
   grown=$((reading - first[1]))
   most=$((high - first[0]))
   [ $((most - least)) -le $((most / 10)) ]
}

checkCpu() { # ENTITY VM...
   local granularityMs=50 # of the kernel's accounting, by process and by group
   waitFor hasGrown "$@"
   echo "   $1 used $least to $most ms of CPU by /proc, $grown ms by the agent"
   [ $((least - granularityMs)) -le "$grown" ] && [ "$grown" -le $((most + granularityMs)) ] || fail "CPU use of $1"
}

# Each sample is what its counter has grown by since the collection a second before; a skipped
# collection costs samples, and then their sum is smaller than the growth.
checkSamples() { # ENTITY METRIC FROM READING TO READING
   local count sum
   read -r count sum < <(samples "$1" "$2" "$3" "$5" | awk '{ sum += $2 } END { printf "%d %d\n", NR, sum }')
   [ "$sum" -eq $(($6 - $4)) ] || { [ "$count" -lt $(($5 - $3)) ] && [ "$sum" -lt $(($6 - $4)) ]; } ||
      fail "$count samples of $2 in $(($5 - $3)) s have the sum $sum, but the counter grew by $(($6 - $4))"
}

isShutOff() { [ "$(virsh domstate "$1")" = "shut off" ]; } # NAME

depotHas() { # ENTITY: whether the depot's files name it
   "$build/bin/qsh" -c "metrix/statsDepot/load $dir/stats/ hostAgentStats; metrix/statsDepot/getStatNames $1" \
      >"$dir/names" 2>&1
   grep -c '[a-z]-' "$dir/names" >/dev/null
}

depotLacks() { ! depotHas "$1"; }
nextCollection() { waitFor isRead ha-host mem.consumed.none "$(date +%s)"; }

startAll() {
   local name
   labUp "$dir"
   labPool "$web"
   labPool "$silver"
   a=$(labVm "$lab-a" "$web" busy)
   b=$(labVm "$lab-b" "$gold" idle 2)
   c=$(labVm "$lab-c" "$silver" busy)
   # At this speed a figure in MHz is one in milliseconds of CPU time per second.
   echo "<config><agentd><cpuMhz>1000</cpuMhz></agentd></config>" >"$dir/config.xml"
   "$build/bin/agentd" --config "$dir/config.xml" --listen 127.0.0.1:0 --state-dir "$dir" --interval 1 \
      2>"$dir/log" &
   agent=$!
   waitFor logged "served at http://"
   port=$(sed -n 's|.*served at http://127.0.0.1:||p' "$dir/log")
   waitFor isEntity "$a" "VirtualMachine $lab-a poweredOff pool:$web"
   for name in a b c; do
      labStart "$lab-$name"
   done
   waitFor isEntity "$a" "VirtualMachine $lab-a poweredOn pool:$web"
   waitFor isEntity "$b" "VirtualMachine $lab-b poweredOn pool:$gold"
   isEntity "pool:$web" "ResourcePool web - pool:$gold" || fail "pool: $(entity "pool:$web")"
   start=$(date +%s)
   pidC=$(labPid "$lab-c")
}

checkCounters() {
   local disk from
   bracket "$a" cpu.usagemhz.none 1 cpuMs "$lab-a"
   firstOfVm=("$low" "$reading" "$high")
   from=$readAt
   bracket "pool:$gold" cpu.usagemhz.none 1 cpuMs "$lab-a" "$lab-b"
   firstOfPool=("$low" "$reading" "$high")
   disk=$(ctl metrics "$a" | awk '/disk.read/ { print $1; exit }')
   disk=${disk##*:}
   checkBetween "$a" "disk.read:$disk" 1024 labDomstats "$lab-a" block.0.rd.bytes
   checkBetween "$a" "disk.numberWrite:$disk" 1 labDomstats "$lab-a" block.0.wr.reqs
   labSend "$lab-a" 200 1000
   checkBetween "$a" net.received:4000 1024 labDomstats "$lab-a" net.0.rx.bytes
   checkBetween "$a" net.packetsTx:4000 1 labDomstats "$lab-a" net.0.tx.pkts
   waitFor isRead "$a" cpu.usagemhz.none "$(date +%s)"
   checkSamples "$a" cpu.usagemhz.none "$from" "${firstOfVm[1]}" "$readAt" "$reading"
   waitFor hasSamples "$a" rescpu.actav1 "$start" 1
   ctl top --count 1 >"$dir/top"
   awk -v name="$lab-a" '$1 == name && $3 == "on" && $4 == "web" { found = 1 } END { exit !found }' "$dir/top" ||
      fail "top: $(cat "$dir/top")"
}

isPartly() { ctl entities | grep -q " $1 .* partly .*its monitor does not answer"; } # ID

# Memory is the monitor's alone; CPU and network are there without it.
hangMonitors() {
   local from id
   hung=("$(labPid "$lab-a")" "$pidC")
   kill -STOP "${hung[@]}"
   for id in "$a" "$c"; do
      waitFor isPartly "$id"
   done
   from=$(($(date +%s) + 2))
   waitFor hasSamples "$b" mem.usage.none "$from" 5
   for id in "$a" "$c"; do
      waitFor hasSamples "$id" cpu.usage.none "$from" 5
      [ -z "$(samples "$id" mem.usage.none "$from")" ] || fail "memory of a VM that hangs"
   done
   kill -CONT "${hung[@]}"
   hung=()
   for id in "$a" "$c"; do
      waitFor hasSamples "$id" mem.usage.none "$(date +%s)" 1
   done
}

suspendAndResume() {
   local from
   virsh -q suspend "$lab-b"
   waitFor isEntity "$b" "VirtualMachine $lab-b suspended pool:$gold"
   from=$(($(date +%s) + 1))
   waitFor hasSamples "$a" cpu.usage.none "$from" 3
   [ -z "$(samples "$b" cpu.usage.none "$from")" ] || fail "samples of a suspended VM"
   virsh -q resume "$lab-b"
   waitFor isEntity "$b" "VirtualMachine $lab-b poweredOn pool:$gold"
   waitFor hasSamples "$b" cpu.usage.none "$(date +%s)" 1
}

loseDaemon() {
   labKillDaemon
   waitFor logged "<4>Host: .*connection to the hypervisor was lost"
   kill -KILL "$pidC"
   waitFor hasSamples ha-host cpu.usage.none "$(date +%s)" 3
   # libvirtd sends no event for a VM that it finds dead when it starts, and lists it as running until
   # then.
   labStartDaemon
   waitFor isShutOff "$lab-c"
   waitFor isEntity "$c" "VirtualMachine $lab-c poweredOff pool:$silver"
   waitFor hasSamples "$a" cpu.usage.none "$(date +%s)" 1
}

removeAll() {
   depotHas "$b" || fail "no stats of $lab-b in the depot: $(cat "$dir/names")"
   virsh -q destroy "$b"
   waitFor isEntity "$b" "VirtualMachine $lab-b poweredOff pool:$gold"
   virsh -q undefine "$b"
   waitFor isGone "$b"
   virsh -q destroy "$a"
   depotHas "pool:$web" || fail "no stats of the pool in the depot: $(cat "$dir/names")"
   labRemovePool "$web"
   waitFor isGone "pool:$web"
   waitFor depotLacks "$b"
   waitFor depotLacks "pool:$web"
   nextCollection
   depotLacks "$b" || fail "an unregistered VM is in the depot again"
   depotLacks "pool:$web" || fail "a destroyed pool is in the depot again"
   depotHas "$a" || fail "the stats of a VM that is off are gone"
}

step "the agent starts, then the VMs"
startAll
step "disk and network counters against libvirt"
checkCounters
step "two monitors hang"
hangMonitors
step "suspended and resumed"
suspendAndResume
step "libvirtd is killed, a VM dies meanwhile, libvirtd comes back"
loseDaemon
step "CPU use since the start against /proc"
first=("${firstOfVm[@]}")
checkCpu "$a" "$lab-a"
first=("${firstOfPool[@]}")
checkCpu "pool:$gold" "$lab-a" "$lab-b"
step "destroyed, undefined, pool removed"
removeAll
step "$(samples ha-host cpu.usage.none "$start" | wc -l) collections in $(($(date +%s) - start)) s"

step "the agent ends although libvirtd hangs"
hung=("$(</run/libvirt/libvirtd.pid)")
kill -STOP "${hung[@]}"
waitFor logged "<4>Host: The virtual machines have no figures: the hypervisor does not answer"
kill "$agent"
wait "$agent" || fail "the agent ends with $?"
agent=
logged "agentd has stopped" || fail "no orderly end"
# A new depot begins with an error about the missing one; a busy machine may hold up a collection.
! grep -E "^<[0-3]>" "$dir/log" | grep -vE "Unable to load stats depot|No .* has ended for" >"$dir/errors" ||
   fail "errors: $(cat "$dir/errors")"
