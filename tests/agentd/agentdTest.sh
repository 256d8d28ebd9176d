#!/usr/bin/env bash
# The agent from outside: `agentdTest.sh BUILD_DIR CASE` runs one case against the built programs.
set -euo pipefail
. "$(dirname "$0")/agent.sh"

lines() { wc -l <"$dir/out"; }
hasLines() {
   [ "$(lines)" -ge "$1" ] && return
   isRunning
   return 1
}

checkDepot() { # PERIOD of the finest store
   "$build/bin/metrix-depot" check "$dir/stats" >"$dir/check" || fail "$(cat "$dir/check")"
   [ "$("$build/bin/metrix-depot" dump "$dir/stats" | grep -cE "^interval .* ($1 3600|300 432)$")" -eq 2 ] ||
      fail "not the intervals of $1 s"
}

usedMs() { # CPU time that all CPUs have used, in the fields that the agent counts
   awk -v hz="$(getconf CLK_TCK)" \
      '/^cpu[0-9]/ {t += $2 + $3 + $4 + $7 + $8} END {printf "%.0f", t * 1000 / hz}' /proc/stat
}

usedKb() { awk '/^MemTotal/ {t = $2} /^MemFree/ {f = $2} END {print t - f}' /proc/meminfo; }

# Holds a span of report lines against /proc. A reading is known to follow a reading of /proc only in
# the second line that is printed after it: the run before that may have been under way. Fails the
# case if the CPU figures are wrong. Returns 1, to be tried again, if a late run left one out, or if
# the memory in use is not between that before and after: it may have gone up and down meanwhile.
figuresAgree() {
   local first last outerStart innerStart innerEnd outerEnd before after memory slack sum
   before=$(usedKb)
   outerStart=$(usedMs)
   first=$(($(lines) + 2))
   waitFor hasLines $first
   innerStart=$(usedMs)
   after=$(usedKb)
   waitFor hasLines $((first + 5))
   innerEnd=$(usedMs)
   last=$(($(lines) + 2))
   waitFor hasLines $last
   outerEnd=$(usedMs)

   # Of an agent with CPUs of 1000 MHz, MHz in a second are milliseconds of CPU time.
   sum=$(sed -n "$((first + 1)),${last}p" "$dir/out" |
      awk '$3 == "-" {gap = 1} {sum += $3} END {if (gap) exit 1; print sum}') || return 1
   [ "$sum" -ge $((innerEnd - innerStart - 1)) ] && [ "$sum" -le $((outerEnd - outerStart + 1)) ] ||
      fail "$sum ms of CPU time, not from $((innerEnd - innerStart)) to $((outerEnd - outerStart))"
   memory=$(sed -n "${first}p" "$dir/out" | cut -d ' ' -f 6)
   slack=$(awk '/^MemTotal/ {print int($2 / 50)}' /proc/meminfo)
   [ "$memory" -ge $(((before < after ? before : after) - slack)) ] &&
      [ "$memory" -le $(((before > after ? before : after) + slack)) ]
}

case $2 in
report)
   config '<agentd><cpuMhz>1000</cpuMhz></agentd>'
   (while :; do :; done) &
   helper=$!
   start --interval 1 --config "$dir/c.xml"
   waitFor figuresAgree
   stop TERM
   last=0
   while read -r line; do
      grep -qxE '[0-9T:-]+Z cpu (-|[0-9]+) MHz memory [0-9]+ KB' <<<"$line" || fail "report: $line"
      time=$(date -d "${line%% *}" +%s)
      [ "$time" -gt $last ] || fail "not after the line before: $line"
      last=$time
   done <"$dir/out"
   checkDepot 1
   ;;

continues)
   for run in 1 2 3; do
      interval=$((run == 3 ? 2 : 1))
      "$agentd" --listen none --state-dir "$dir" --interval $interval --runs 2 2>"$dir/log$run" || fail "run $run: $?"
   done
   grep -q "<4>Metrix: Reverting to default stats configuration" "$dir/log1" || fail "no new depot"
   ! grep -q "Reverting" "$dir/log2" || fail "the second run gave up the depot"
   grep -q "<4>Metrix: Reverting to default stats configuration" "$dir/log3" || fail "kept at 2 s"
   ! grep -q "failed" "$dir"/log* || fail "errors in the log"
   [ "$("$build/bin/metrix-depot" dump "$dir/stats/hostAgentStats.aside" |
      awk '/^interval/ && n++ { exit } /^columns/ { sum += $3 } END { print sum }')" -ge 4 ] ||
      fail "the second run did not add to the first's columns"
   ;;

stops)
   printf '<config><agentd><stateDir>%s</stateDir></agentd><plugins><metrix><depotDir>%s</depotDir></metrix></plugins></config>' \
      "$dir/other" "$dir/stats/" >"$dir/c.xml"
   for signal in TERM INT; do
      start --interval 1
      waitFor hasLines 1
      ! "$agentd" --listen none --state-dir "$dir" --runs 1 2>"$dir/second" || fail "a second agent started"
      grep -q "is locked: process $agent is using the directory" "$dir/second" || fail "$(cat "$dir/second")"
      status=0
      "$agentd" --listen none --interval 1 --runs 1 --config "$dir/c.xml" 2>"$dir/second" || status=$?
      [ $status -eq 1 ] && [ "$(grep -c "is locked: process $agent is using" "$dir/second")" -eq 1 ] ||
         fail "status $status of a second agent with the same depot: $(cat "$dir/second")"
      stop $signal
      grep -q "<5>agentd: agentd has stopped" "$dir/log" || fail "no clean stop"
   done
   ;;

refusals)
   expect() { # STATUS TEXT ARGUMENTS...
      local status=0 wanted=$1 text=$2
      shift 2
      "$agentd" --listen none --state-dir "$dir" "$@" >"$dir/out" 2>"$dir/err" || status=$?
      [ $status -eq "$wanted" ] || fail "status $status of $*: $(cat "$dir/err")"
      grep -qF -- "$text" "$dir/out" "$dir/err" || fail "$* says: $(cat "$dir/err")"
      [ "$wanted" -eq 0 ] || [ "$(grep -c . "$dir/err")" -le 4 ] || fail "$* says too much"
   }
   expect 2 "agentd: The following argument was not expected: --nonsense" --nonsense
   expect 2 "agentd: --interval: '7' does not divide 300 seconds" --interval 7
   expect 2 "agentd: --runs" --runs 0
   expect 0 "agentd 1." --version
   expect 1 "agentd: Cannot open $dir/none.xml for reading: No such file or directory" \
      --config "$dir/none.xml"
   config '<plugins><metrix><colectionInterval>5</colectionInterval></metrix></plugins>'
   expect 1 "agentd: $dir/c.xml:2: unknown key plugins/metrix/colectionInterval" --config "$dir/c.xml"
   config '<plugins><metrix><maxStatsPurged>many</maxStatsPurged></metrix></plugins>'
   expect 1 "agentd: $dir/c.xml:2: 'many' is not an integer" --check-config --config "$dir/c.xml"
   while IFS='|' read -r key value text; do
      config "<plugins><metrix><$key>$value</$key></metrix></plugins>"
      for check in --check-config --runs=1; do
         expect 1 "agentd: $dir/c.xml:2: $text" $check --config "$dir/c.xml"
      done
   done <<'END'
collectionInterval|7|'7' does not divide 300 seconds
collectionInterval|-20|'-20' does not divide 300 seconds
collectionInterval|0|'0' does not divide 300 seconds
depotDir|stats|'stats' does not start and end with
depotName||plugins/metrix/depotName is empty
depotName|a/b|'a/b' has a "/"
maxStatsPurged|-1|plugins/metrix/maxStatsPurged is below 0
checkpointSec|-1|plugins/metrix/checkpointSec is below 0
syncSec|-1|plugins/metrix/syncSec is below 0
END
   config '<agentd><logLevel>loud</logLevel></agentd>'
   expect 1 "agentd: $dir/c.xml:2: 'loud' is not a log level" --config "$dir/c.xml"
   config '<agentd><logLevel>3</logLevel><logLevel>4</logLevel></agentd>'
   expect 1 "agentd: $dir/c.xml:2: agentd/logLevel is given twice" --config "$dir/c.xml"
   config '<agentd>'
   expect 1 "agentd: File Format Exception: $dir/c.xml:3: not well-formed XML" --config "$dir/c.xml"
   config '<agentd><logLevel>debug</logLevel><nics><nic>a</nic><nic>b</nic></nics></agentd>
  <plugins><metrix><maxStatsPurged>0</maxStatsPurged><syncSec>0</syncSec></metrix></plugins>'
   expect 0 "The configuration is valid." --check-config --config "$dir/c.xml"
   expect 1 "agentd: Cannot load $dir/none.so: " --plugin "$dir/none.so"
   expect 1 "libcorvax.so does not export CorvaxPluginEntry" \
      --plugin "$build/lib/libcorvax.so"
   ;;

descriptors)
   limited() {
      ulimit -n 120
      exec "$build/bin/agentd" "$@"
   }
   sockets() { find "/proc/$agent/fd" -lname 'socket:*' | wc -l; }
   hasSockets() { [ "$(sockets)" -ge "$1" ]; }
   agentd=limited
   listen=127.0.0.1:0
   start --interval 1
   waitFor grep -q "served at" "$dir/log"
   port=$(sed -n 's/.*served at .*:\([0-9]*\)$/\1/p' "$dir/log")
   for ((i = 0; i < 150; i++)); do
      exec {connection}<>"/dev/tcp/127.0.0.1/$port"
   done
   waitFor hasSockets 21
   [ "$(sockets)" -le 36 ] || fail "$(sockets) of 120 descriptors are sockets"
   waitFor hasLines $(($(lines) + 3))
   ! grep "Too many open files" "$dir/log" || fail "no descriptors are left"
   stop TERM
   ;;

plugin)
   library=$build/lib/libmetrix.so
   exported=$(nm -D --defined-only "$library" | awk '{print $3}' | grep -v '^__\(asan\|odr_asan\|ubsan\|tsan\)' | sort | tr '\n' ' ')
   [ "$exported" = "CorvaxPluginEntry GetQshPluginEntry " ] || fail "exports: $exported"
   needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
      grep -vE '^lib(corvax|plexa|quen|agentdCommon|hostsvc|guestsvc|hykctl|qshFramework|stdc\+\+|gcc_s|c|m|asan|ubsan|tsan)\.so' || true)
   [ -z "$needed" ] || fail "needs $needed"
   # A type used on both sides of dlopen has one typeinfo, in its shared library: a module that has
   # its own makes catch and dynamic_cast depend on comparing names.
   for module in "$library" "$build/lib/libhykvirt.so"; do
      copies=$(nm -C --defined-only "$module" | grep ' typeinfo for ' | grep -v '[<(]' |
         grep -E ' for (Corvax|Plexa|Quen|HostCtl|AgentdCommon|Hostsvc|Guestsvc|QshFramework|LinuxHost)::' || true)
      [ -z "$copies" ] || fail "$module has copies of shared types: $copies"
   done
   ;;

*) fail "unknown case $2" ;;
esac
echo "passed: $2"
