#!/usr/bin/env bash
# The agent with real virtual machines: `vmTest.sh BUILD_DIR` takes three guests of a private
# libvirtd through their lives and holds what the agent says of them against QEMU, libvirt and the
# kernel.
set -euo pipefail
source "$(dirname "$0")/vm/lab.sh"
labPossible || exit 77 # told as skipped
labEnter "$@"
build=$1
dir=$(mktemp -d)
agent=
gold=$lab-gold web=$lab-gold/web silver=$lab-silver
hung=

cleanUp() {
   [ -z "$hung" ] || kill -CONT "$hung" 2>/dev/null || true
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

waitFor() { # SECONDS COMMAND...: until the command succeeds
   local end=$(($(date +%s) + $1))
   shift
   until "$@"; do
      [ "$(date +%s)" -lt $end ] || fail "in vain waited for: $*"
      sleep 0.1
   done
}

ctl() { "$build/bin/agentctl" --server "http://127.0.0.1:$port" "$@"; }

entity() { # ID: its line of the list, "TYPE ID NAME STATE PARENT"
   ctl entities >"$dir/entities"
   awk -v id="$1" '$2 == id { print $1, $3, $4, $5; found = 1 } END { exit !found }' "$dir/entities"
}

isEntity() { [ "$(entity "$1")" = "$2" ]; }
isGone() { ! entity "$1" >/dev/null; }

samples() { # ENTITY METRIC FROM TO: "SECOND VALUE" of each sample there is
   ctl query "$1" "$2" --interval 1 --from "$3" --to "$4" --format csv >"$dir/csv" 2>/dev/null || return 0
   tail -n +2 "$dir/csv" | tr -d '\r' | while IFS=, read -r time value; do
      [ -z "$value" ] || echo "$(date -d "$time" +%s) $value"
   done
}

countSamples() { samples "$@" | wc -l; }

checkNoGap() { # ENTITY METRIC FROM TO WHAT: a sample for every second, give or take a late run
   local last=$3 time
   while read -r time _; do
      [ $((time - last)) -le 2 ] || fail "$5: no sample from $last to $time"
      last=$time
   done < <(samples "$1" "$2" "$3" "$4")
   [ $(($4 - last)) -le 2 ] || fail "$5: no sample from $last to $4"
}

raw() { # ENTITY METRIC: the latest raw reading
   ctl query "$1" "$2" --interval 0 --format csv | tail -n 1 | tr -d '\r' | cut -d , -f 2
}

# A reading that only grows lies between what libvirt says before and after it.
checkBetween() { # ENTITY METRIC NAME FIELD DIVISOR
   local before after reading
   before=$(labDomstats "$3" "$4")
   sleep 3
   reading=$(raw "$1" "$2")
   after=$(labDomstats "$3" "$4")
   [ "$((before / $5))" -le "$reading" ] && [ "$reading" -le "$((after / $5))" ] ||
      fail "$2 of $3 is $reading, not between $before and $after / $5"
   [ "$reading" -gt 0 ] || fail "$2 of $3 does not move"
}

depotHas() { # ENTITY: whether the depot's files name it
   "$build/bin/qsh" -c "metrix/statsDepot/load $dir/stats/ hostAgentStats; metrix/statsDepot/getStatNames $1" \
      >"$dir/names" 2>&1
   grep -c '[a-z]-' "$dir/names" >/dev/null
}

labUp "$dir"
labPool "$web"
labPool "$silver"
a=$(labGuest "$lab-a" "$web" busy)
b=$(labGuest "$lab-b" "$gold" idle 2)
c=$(labGuest "$lab-c" "$silver" busy)

step "the agent starts, then the guests"
"$build/bin/agentd" --listen 127.0.0.1:0 --state-dir "$dir" --interval 1 2>"$dir/log" &
agent=$!
listening() { port=$(sed -n 's|.*served at http://127.0.0.1:||p' "$dir/log") && [ -n "$port" ]; }
waitFor 20 listening
waitFor 10 isEntity "$a" "VirtualMachine $lab-a poweredOff pool:$web"
for guest in a b c; do
   labStart "$lab-$guest"
done
waitFor 10 isEntity "$a" "VirtualMachine $lab-a poweredOn pool:$web"
waitFor 10 isEntity "$b" "VirtualMachine $lab-b poweredOn pool:$gold"
isEntity "pool:$web" "ResourcePool web - pool:$gold" || fail "pool: $(entity "pool:$web")"
start=$(date +%s)
pidC=$(labPid "$lab-c")

step "CPU use against /proc, disk and network counters against libvirt"
sleep 2
from=$(date +%s)
ticks=$(labCpuTicks "$lab-a")
sleep 15
to=$(date +%s)
used=$((($(labCpuTicks "$lab-a") - ticks) * 1000 / $(getconf CLK_TCK)))
sleep 1
told=$(samples "$a" cpu.usage.none "$from" "$to" | awk '{ sum += $2 } END { printf "%d", sum / 10 }')
echo "   $lab-a used $used ms of CPU in $((to - from)) s by /proc, $told ms by the agent"
[ $((used - told)) -le $((used / 10)) ] && [ $((told - used)) -le $((used / 10)) ] || fail "CPU use"
poolMhz=$(samples "pool:$gold" cpu.usagemhz.none "$from" "$to" | awk '{ sum += $2 } END { printf "%d", sum }')
vmMhz=$(samples "$a" cpu.usagemhz.none "$from" "$to" | awk '{ sum += $2 } END { printf "%d", sum }')
[ "$poolMhz" -ge $((vmMhz * 9 / 10)) ] || fail "a pool of $poolMhz MHz around a machine of $vmMhz"
disk=$(ctl metrics "$a" | awk '/disk.read/ { print $1; exit }')
disk=${disk##*:}
checkBetween "$a" "disk.read:$disk" "$lab-a" block.0.rd.bytes 1024
checkBetween "$a" "disk.numberWrite:$disk" "$lab-a" block.0.wr.reqs 1
labSend "$lab-a" 200 1000
checkBetween "$a" net.received:4000 "$lab-a" net.0.rx.bytes 1024
checkBetween "$a" net.packetsTx:4000 "$lab-a" net.0.tx.pkts 1
[ "$(countSamples "$a" rescpu.actav1 "$start" "$(date +%s)")" -gt 0 ] || fail "no CPU load"
ctl top --count 1 >"$dir/top"
awk -v name="$lab-a" '$1 == name && $3 == "on" && $4 == "web" { found = 1 } END { exit !found }' "$dir/top" ||
   fail "top: $(cat "$dir/top")"

step "a monitor hangs"
hung=$pidC
kill -STOP "$hung"
from=$(date +%s)
sleep 8
to=$(date +%s)
kill -CONT "$hung"
hung=
checkNoGap "$a" cpu.usage.none "$from" "$to" "$lab-a, while $lab-c hangs"
checkNoGap "$b" cpu.usage.none "$from" "$to" "$lab-b, while $lab-c hangs"
[ "$(countSamples "$c" cpu.usage.none $((from + 2)) "$to")" -eq 0 ] || fail "figures of a hung machine"
back=$(date +%s)
sleep 5
[ "$(countSamples "$c" cpu.usage.none "$back" "$(date +%s)")" -gt 0 ] || fail "$lab-c does not come back"

step "suspended and resumed"
virsh -q suspend "$lab-b"
waitFor 5 isEntity "$b" "VirtualMachine $lab-b suspended pool:$gold"
from=$(date +%s)
sleep 4
[ "$(countSamples "$b" cpu.usage.none $((from + 1)) "$(date +%s)")" -eq 0 ] || fail "figures of a suspended machine"
virsh -q resume "$lab-b"
waitFor 5 isEntity "$b" "VirtualMachine $lab-b poweredOn pool:$gold"

step "libvirtd is killed, a guest dies meanwhile, libvirtd comes back"
labKillDaemon
sleep 2
kill -KILL "$pidC"
sleep 2
grep "<4>Host: .*connection to the hypervisor was lost" "$dir/log" >/dev/null || fail "nothing said of the loss"
labStartDaemon
waitFor 20 isEntity "$c" "VirtualMachine $lab-c poweredOff pool:$silver"
back=$(date +%s)
sleep 4
[ "$(countSamples "$a" cpu.usage.none "$back" "$(date +%s)")" -gt 0 ] || fail "$lab-a does not come back"

step "destroyed, undefined, pool removed"
depotHas "$b" || fail "no figures of $lab-b in the depot: $(cat "$dir/names")"
virsh -q destroy "$b"
waitFor 5 isEntity "$b" "VirtualMachine $lab-b poweredOff pool:$gold"
virsh -q undefine "$b"
waitFor 5 isGone "$b"
virsh -q destroy "$a"
depotHas "pool:$web" || fail "no figures of the pool: $(cat "$dir/names")"
waitFor 5 labRemovePool "$web"
waitFor 5 isGone "pool:$web"
sleep 1
! depotHas "$b" || fail "figures of an unregistered machine in the depot"
! depotHas "pool:$web" || fail "figures of a destroyed pool in the depot"
depotHas "$a" || fail "the figures of a machine that is off are gone"

end=$(date +%s)
checkNoGap ha-host cpu.usage.none "$start" "$end" "the host"
step "$(countSamples ha-host cpu.usage.none "$start" "$end") collections in $((end - start)) s"
kill "$agent"
wait "$agent" || fail "the agent ends with $?"
agent=
# A new depot begins with an error about the one that is not there.
! grep -E "^<[0-3]>" "$dir/log" | grep -v "Unable to load stats depot" >"$dir/errors" ||
   fail "errors: $(cat "$dir/errors")"
