#!/usr/bin/env bash
# The agent from outside: `agentdTest.sh BUILD_DIR CASE` runs one case against the built programs.
set -euo pipefail
build=$1
agentd=$build/bin/agentd
dir=$(mktemp -d)
agent=
trap '[ -z "$agent" ] || kill -9 "$agent" 2>/dev/null || true; rm -rf "$dir"' EXIT

fail() {
   echo "FAILED: $*" >&2
   tail -n 40 "$dir"/log* >&2 2>/dev/null || true
   exit 1
}

# Unsigned integers of a file: numbers FILE OFFSET COUNT SIZE
numbers() { od -An -v -t "u$4" -j "$2" -N $(($3 * $4)) -w$(($3 * $4)) "$1"; }

store() { echo "$dir/stats/hostAgentStats-$1.stats"; }

newestColumn() {
   local columns
   columns=$(numbers "$1" 0 1 4)
   numbers "$1" 8 $((columns)) 8 | tr -s ' ' '\n' | grep -vx 18446744073709551615 | sort -n | tail -n 1
}

checkDepot() { # with N columns in the finest and M in the coarse store
   local size columns
   size=$(stat -c %s "$dir/stats/hostAgentStats.idMap")
   [ $((size % 524)) -eq 0 ] && [ "$size" -gt 0 ] || fail "id map of $size bytes"
   for columns in "$1:3600" "300:432"; do
      size=$(stat -c %s "$(store "${columns%:*}")")
      columns=${columns#*:}
      [ $(((size - 8 - 8 * columns) % (12 + 8 * columns))) -eq 0 ] || fail "store of $size bytes"
   done
}

case $2 in
report)
   cpus=$(nproc)
   busy=()
   for ((i = 0; i < cpus; ++i)); do
      (while :; do :; done) &
      busy+=($!)
   done
   # What the machine has in use meanwhile; others may come and go.
   (while :; do
      awk '/^MemTotal/ {t = $2} /^MemFree/ {f = $2} END {print t - f}' /proc/meminfo
      sleep 0.1
   done) >"$dir/used" &
   busy+=($!)
   "$agentd" --listen none --state-dir "$dir" --interval 1 --runs 4 --report >"$dir/out" 2>"$dir/log" ||
      fail "exit status $?"
   kill "${busy[@]}"
   least=$(sort -n "$dir/used" | head -n 1)
   most=$(sort -n "$dir/used" | tail -n 1)
   total=$(awk '/^MemTotal/ {print $2}' /proc/meminfo)
   [ "$(wc -l <"$dir/out")" -eq 4 ] || fail "not four lines: $(cat "$dir/out")"
   expected=
   while read -r time _ mhz _ _ memory _; do
      second=$(date -d "$time" +%s)
      [ -z "$expected" ] || [ "$second" -eq $((expected + 1)) ] || fail "$time is not a second later"
      [ -z "$expected" ] || [ "$mhz" -gt 0 ] || fail "no CPU use at $time"
      [ $((memory + total / 50)) -ge "$least" ] && [ "$memory" -le $((most + total / 50)) ] ||
         fail "memory of $memory KB, not between $least and $most"
      expected=$second
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
   ! grep -q "No collection\|failed" "$dir"/log* || fail "trouble in the log"
   [ "$(numbers "$(store 1)" 8 5 8 | tr -s ' ' '\n' | grep -c '^1[0-9]*$')" -ge 4 ] ||
      fail "the second run did not go on from the first's columns"
   ;;

killed)
   "$agentd" --listen none --state-dir "$dir" --interval 1 --report >"$dir/out" 2>"$dir/log1" &
   agent=$!
   for ((i = 0; i < 100; ++i)); do
      [ "$(wc -l <"$dir/out")" -lt 3 ] || break
      sleep 0.1
   done
   kill -9 $agent
   wait $agent || true
   agent=
   last=$(date -d "$(tail -n 1 "$dir/out" | cut -d ' ' -f 1)" +%s)
   [ "$(newestColumn "$(store 1)")" -ge "$last" ] || fail "the last finished run is not in the store"
   "$agentd" --listen none --state-dir "$dir" --interval 1 --runs 1 2>"$dir/log2" || fail "exit status $?"
   ! grep -qE "Reverting|Unable to load|Error in loading|lost" "$dir/log2" || fail "something was lost"
   numbers "$(store 1)" 8 8 8 | tr -s ' ' '\n' | grep -x "$last" >/dev/null || fail "the column is gone"
   ;;

stops)
   for signal in TERM INT; do
      "$agentd" --listen none --state-dir "$dir" --interval 1 --report >"$dir/out" 2>"$dir/log" &
      agent=$!
      for ((i = 0; i < 100; ++i)); do
         [ ! -s "$dir/out" ] || break
         sleep 0.1
      done
      ! "$agentd" --listen none --state-dir "$dir" --runs 1 2>"$dir/second" || fail "a second agent started"
      grep -q "is locked: process $agent is using the directory" "$dir/second" || fail "$(cat "$dir/second")"
      kill -$signal $agent
      wait $agent || fail "exit status $? after SIG$signal"
      agent=
      grep -q "<5>agentd: agentd has stopped" "$dir/log" || fail "no clean stop"
      rm "$dir/out"
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
   config() { printf '<config>\n  %s\n</config>\n' "$1" >"$dir/c.xml"; }
   expect 2 "agentd: The following argument was not expected: --nonsense" --nonsense
   expect 2 "agentd: --interval: '7' is no divisor of 300 seconds" --interval 7
   expect 2 "agentd: --runs" --runs 0
   expect 0 "agentd 1." --version
   expect 1 "agentd: Cannot open $dir/none.xml for reading: No such file or directory" \
      --config "$dir/none.xml"
   config '<plugins><metrix><colectionInterval>5</colectionInterval></metrix></plugins>'
   expect 1 "agentd: $dir/c.xml:2: unknown key plugins/metrix/colectionInterval" --config "$dir/c.xml"
   config '<plugins><metrix><maxStatsPurged>many</maxStatsPurged></metrix></plugins>'
   expect 1 "agentd: $dir/c.xml:2: 'many' is not an integer" --check-config --config "$dir/c.xml"
   config '<plugins><metrix><depotDir>stats</depotDir></metrix></plugins>'
   expect 1 "agentd: $dir/c.xml:2: 'stats' does not start and end with" --check-config --config "$dir/c.xml"
   config '<agentd><logLevel>loud</logLevel></agentd>'
   expect 1 "agentd: $dir/c.xml:2: 'loud' is no log level" --config "$dir/c.xml"
   config '<agentd><logLevel>3</logLevel><logLevel>4</logLevel></agentd>'
   expect 1 "agentd: $dir/c.xml:2: agentd/logLevel stands a second time" --config "$dir/c.xml"
   config '<agentd>'
   expect 1 "agentd: File Format Exception: $dir/c.xml:3: not well-formed XML" --config "$dir/c.xml"
   config '<agentd><logLevel>debug</logLevel><nics><nic>a</nic><nic>b</nic></nics></agentd><plugins/>'
   expect 0 "The configuration is good." --check-config --config "$dir/c.xml"
   expect 1 "agentd: Cannot load plug-in $dir/none.so" --plugin "$dir/none.so"
   expect 1 "libcorvax.so is no plug-in: it does not export CorvaxPluginEntry" \
      --plugin "$build/lib/libcorvax.so"
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
