#!/usr/bin/env bash
# The agent and the disk below its depot: `diskTest.sh BUILD_DIR CASE`. A simulated host shows which
# samples are missing or wrong. A case that needs what is not there is skipped with the reason.
#   refusals   files that cannot be opened, and a limit of descriptors: status 1, the depot is whole
#   copied     a copied depot uses its own files
#   replaced   a depot made anew by another process, while the agent runs, belongs to that one
#   sizeLimit  the limit of a file's size is an error of the write and does not end the agent
# Longer, run by hand:
#   full [SECONDS]       a small file system fills up, then gets room (as root)
#   cuts [COPIES]        copies of the block device while the agent writes: power cuts (as root)
#   writes [SECONDS]     the order and number of writes at 20 s, by their trace
#   readers [SECONDS]    qsh and metrix-depot beside the agent change nothing
#   clock OFFSET[:SECONDS]...  the clock has these offsets in turn, such as -0.5 -3600:30 +86400:1, and
#                              what it cost is printed
set -euo pipefail
. "$(dirname "$0")/agent.sh"
host=vms=10,pools=2,disks=2,nics=1
runs=$dir/runs
: >"$runs"
stats=$dir/stats
mounts=
trap '{ kill -9 $agent $helper; wait; umount -l $mounts; } 2>/dev/null || true; cleanUp' EXIT
config "$kDebugRuns"

startSimulated() { # ARGUMENTS...
   start --interval "${interval:-1}" --backend simulated --sim "$host" --config "$dir/c.xml" "$@"
}

# Kills the agent and notes its runs: now the journal alone has the newest samples.
killIt() {
   kill -9 "$agent"
   wait "$agent" 2>/dev/null || true
   agent=
   runsOf "$dir/log" >>"$runs"
}

makeDepot() {
   local i
   for i in 1 2; do # for both of the journal's files
      startSimulated
      waitFor hasRuns 2
      killIt
   done
}

expectWhole() { # [DEPOT_DIRECTORY [OPTION]]: no fault, and exactly the samples of the runs
   "$build/bin/metrix-depot" check "${1:-$stats}" >"$dir/check" || fail "$(cat "$dir/check")"
   "$build/bin/simCheck" "${1:-$stats}/" hostAgentStats "$host" "$runs" ${2:-} >"$dir/samples" ||
      fail "$(cat "$dir/samples")"
}

# Starts the agent by a command, for one run, which ends with the status and says the text.
attempt() { # STATUS TEXT COMMAND...
   local wanted=$1 text=$2 status=0
   shift 2
   "$@" "$agentd" --listen none --interval 1 --runs 1 --backend simulated --sim "$host" \
      --config "$dir/c.xml" --state-dir "$dir" 2>"$dir/log" || status=$?
   [[ $status == $wanted ]] || fail "status $status of $*"
   grep -q "$text" "$dir/log" || fail "$* does not say: $text"
   runsOf "$dir/log" | sed '/ cut/! s/$/ cut/' >>"$runs" # it need not have stored anything
}

# What a case does is undone after it, and nothing that there was may be lost.
refusals() {
   local asNobody=()
   [ "$(id -u)" -ne 0 ] ||
      asNobody=(setpriv --reuid nobody --clear-groups --bounding-set=-all)
   while read -r kind value text; do
      case $kind in
      mode)
         "${asNobody[@]}" "$agentd" --version >"$dir/out" 2>&1 || continue # it may not read the build
         [ "$(id -u)" -ne 0 ] || chown -R nobody "$dir"
         chmod 000 "$stats/$value"
         attempt 1 "$value.*$text" "${asNobody[@]}"
         chmod 644 "$stats/$value"
         ;;
      fixed)
         chattr +i "$stats/$value" 2>/dev/null || continue # not on every file system
         attempt 1 "$value.*$text"
         chattr -i "$stats/$value"
         ;;
      files)
         ! grep -q '^METRIX_SANITIZE:.*=.' "$build/CMakeCache.txt" || continue # they need some, too
         attempt '*' "$text" bash -c "ulimit -n $value; exec \"\$@\"" -
         ;;
      esac
      echo "$kind $value"
      expectWhole
   done <<'END'
mode  hostAgentStats.xml       Permission denied
mode  hostAgentStats.idMap     Permission denied
mode  hostAgentStats-1.stats   Permission denied
mode  hostAgentStats-300.stats Permission denied
mode  hostAgentStats.journal.0 Permission denied
mode  hostAgentStats.journal.1 Permission denied
mode  hostAgentStats.lock      Permission denied
fixed hostAgentStats.idMap     Operation not permitted
fixed hostAgentStats-1.stats   Operation not permitted
fixed hostAgentStats-300.stats Operation not permitted
fixed hostAgentStats.lock      Operation not permitted
files 8                        Too many open files
files 9                        Too many open files
files 10                       Too many open files
files 11                       Too many open files
files 12                       Too many open files
files 14
files 18
END
   attempt 0 'agentd has stopped'
   expectWhole
}

# A copy's description names the original's stores.
copied() {
   local before
   cp -a "$stats" "$dir/original"
   sed -i "s|$stats/|$dir/original/|" "$dir/original/hostAgentStats.xml"
   before=$(sha256sum "$dir"/original/*)
   rm -r "$stats"
   cp -a "$dir/original" "$stats"
   attempt 0 'is used instead'
   [ "$(sha256sum "$dir"/original/*)" = "$before" ] || fail "the original was changed"
   expectWhole
   grep -q "<storeName>$stats/hostAgentStats-1.stats<" "$stats/hostAgentStats.xml" ||
      fail "the description still names the original"
}

replaced() {
   local first
   startSimulated
   waitFor hasRuns 2
   first=$agent
   helper=$first
   kill -STOP "$first"
   mv "$dir/log" "$dir/log.first"
   rm -r "$stats"
   config "<agentd><stateDir>$dir/other</stateDir></agentd><plugins><metrix><depotDir>$stats/</depotDir><logLevelTemp>debug</logLevelTemp></metrix></plugins>"
   : >"$dir/log"
   "$agentd" --listen none --interval 1 --backend simulated --sim "$host" --config "$dir/c.xml" 2>"$dir/log" &
   agent=$!
   waitFor hasRuns 2
   kill -CONT "$first"
   waitFor grep -q "process $agent is using" "$dir/log.first"
   waitFor hasRuns 6
   ! grep '^<[0-3]>' "$dir/log" | grep -v 'Unable to load' || fail "errors of the second agent"
   killIt
   expectWhole
}

# A limit below the stores' size: an error of the write, which does not end the agent.
sizeLimit() {
   (ulimit -f 20000 && exec "$agentd" --listen none --interval 1 --runs 3 --backend simulated \
      --sim "$host" --config "$dir/c.xml" --state-dir "$dir" 2>"$dir/log") || fail "status $?"
   grep -q 'File too large' "$dir/log" || fail "nothing was too large"
   runsOf "$dir/log" >>"$runs"
   expectWhole "$stats" --established
   attempt 0 'agentd has stopped'
   expectWhole "$stats" --established
}

awaitAddress() {
   isRunning
   address=$(sed -n 's|.*The management API is served at ||p' "$dir/log")
   [ -n "$address" ]
}

answers() { # STATUS of readiness
   isRunning
   [ "$(curl -s -o "$dir/ready" -w '%{http_code}' "$address/-/ready")" = "$1" ]
}

needRoot() { [ "$(id -u)" -eq 0 ] || skip "mounting needs root"; }

mountOn() { # DIRECTORY MOUNT_ARGUMENTS...
   mkdir -p "$1"
   mount "${@:2}" "$1" || skip "cannot mount here"
   mounts="$1 $mounts"
}

# Errors of the log, numbers left out, with how often each is there.
errors() { grep '^<[0-3]>' "$dir/log" | sed 's/[0-9]\{1,\}/N/g' | sort | uniq -c | sort -rn; }

full() { # [SECONDS]
   local before
   needRoot
   mountOn "$stats" -t tmpfs -o size=16m none
   host=vms=200,pools=20,disks=8,nics=4
   listen=127.0.0.1:0 startSimulated
   waitFor awaitAddress
   waitFor answers 503
   waitFor hasRuns "${1:-60}"
   answers 503 || fail "ready on a full disk"
   echo "full: $(<"$dir/ready")"
   before=$(grep -c ' Process time : ' "$dir/log")
   errors
   mount -o remount,size=2g "$stats"
   waitFor answers 200
   echo "ready again, $(($(grep -c ' Process time : ' "$dir/log") - before)) runs later"
   waitFor hasRuns $((before + 10))
   answers 200 || fail "not ready with room"
   killIt
   expectWhole "$stats" --established
   errors
}

# Of a power cut that came between these two states of the log.
runsBetween() { # EARLIER LATER
   runsOf "$1" | grep -v cut >"$dir/finished"
   runsOf "$2" | awk -v known="$dir/finished" 'BEGIN { while ((getline line < known) > 0) done[line] = 1 }
      { print $0 ($0 in done || / cut/ ? "" : " cut") }'
}

cuts() { # [COPIES]
   local i outer=$dir/outer # its copies are made in no time: each is a state of the device
   needRoot
   command -v mkfs.xfs >/dev/null || skip "mkfs.xfs is missing: a copy of an image must take no time"
   truncate -s 4G "$dir/xfs"
   mkfs.xfs -q -m reflink=1 "$dir/xfs"
   mountOn "$outer" -o loop "$dir/xfs"
   truncate -s 512M "$outer/image"
   mkfs.ext4 -q "$outer/image"
   mountOn "$stats" -o loop "$outer/image"
   mkdir "$dir/copy"
   startSimulated
   waitFor hasRuns 3
   for ((i = 1; i <= ${1:-300}; ++i)); do
      sleepToRun
      [ $((RANDOM % 4)) -ne 0 ] || { sync -f "$stats" & helper=$!; }
      cp "$dir/log" "$dir/before"
      cp --reflink=always "$outer/image" "$outer/copy-$i"
      cp "$dir/log" "$dir/after"
      isRunning
      runsBetween "$dir/before" "$dir/after" >"$runs"
      mountOn "$dir/copy" -o loop "$outer/copy-$i"
      sed -i "s|$stats/|$dir/copy/|" "$dir/copy/hostAgentStats.xml"
      expectWhole "$dir/copy"
      cat "$dir/samples" >>"$dir/sums"
      umount "$dir/copy"
      e2fsck -fn "$outer/copy-$i" >"$dir/check" 2>&1 || fail "copy $i: $(cat "$dir/check")"
      rm "$outer/copy-$i"
      [ -z "$helper" ] || wait "$helper"
      helper=
   done
   killIt
   awk '/ samples compared, / { ++n; samples += $3; differ += $5; lost += $7 }
      END { printf "%d copies, %d values compared, %d lost, %d invented\n", n, samples, lost, differ - lost }' "$dir/sums"
}

writes() { # [SECONDS]
   command -v strace >/dev/null || skip "strace is missing"
   host=vms=200,pools=20,disks=8,nics=4
   interval=20 startSimulated
   waitFor hasRuns 2
   strace -f -y -ttt -e trace=fdatasync,pwrite64,pwritev,write -o "$dir/trace" -p "$agent" 2>/dev/null &
   helper=$!
   sleep "${1:-60}"
   kill "$helper"
   wait "$helper" || true
   helper=
   "$(dirname "$0")/straceCheck.py" "$dir/trace" "$stats/hostAgentStats-20.stats" 180 || fail "the writes"
}

readers() { # [SECONDS]
   local end=$(($(date +%s) + ${1:-300})) count=0
   command -v strace >/dev/null || skip "strace is missing"
   startSimulated
   waitFor hasRuns 2
   while [ "$(date +%s)" -lt $end ]; do
      strace -f -o "$dir/trace" -e trace=%file,ftruncate,fallocate "$build/bin/metrix-depot" check "$stats" \
         >"$dir/check" || fail "$(cat "$dir/check")"
      strace -f -A -o "$dir/trace" -e trace=%file,ftruncate,fallocate "$build/bin/qsh" \
         -c "metrix/statsDepot/load $stats/ hostAgentStats; metrix/statsDepot/getStatNames ha-host" >"$dir/out" ||
         fail "$(cat "$dir/out")"
      ! grep -F "$stats/" "$dir/trace" |
         grep -E 'O_(WRONLY|RDWR|CREAT|TRUNC)|rename|unlink|link\(|mkdir|ch(mod|own)|truncate|fallocate' ||
         fail "a reader changes the depot"
      count=$((count + 2))
   done
   killIt
   expectWhole
   echo "$count readers; $(tail -n 1 "$dir/samples")"
}

clock() { # OFFSET[:SECONDS]...
   local library step started
   library=$(find /usr/lib -name libfaketime.so.1 2>/dev/null | head -n 1)
   [ -n "$library" ] || skip "faketime is missing"
   echo +0 >"$dir/offset"
   LD_PRELOAD=$library FAKETIME_TIMESTAMP_FILE=$dir/offset FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1 \
      start --interval 1 --backend simulated --sim "$host" --config "$dir/c.xml"
   waitFor hasRuns 10
   started=$(date +%s)
   for step; do
      echo "${step%:*}" >"$dir/offset.new"
      mv "$dir/offset.new" "$dir/offset"
      echo "== $step, $(grep -c ' Collection Time ' "$dir/log") runs, $(($(date +%s) - started)) s"
      [[ $step == *:* ]] || step=$step:15
      sleep "${step#*:}"
   done
   echo "== end, $(grep -c ' Collection Time ' "$dir/log") runs, $(($(date +%s) - started)) s"
   killIt
   cat "$runs"
   grep '^<[0-5]>' "$dir/log"
   "$build/bin/metrix-depot" check "$stats" || true
   "$build/bin/metrix-depot" dump "$stats" | grep '^columns'
}

case $2 in
refusals | copied)
   makeDepot
   expectWhole
   $2
   ;;
replaced | sizeLimit | full | cuts | writes | readers | clock) "${@:2}" ;;
*) fail "unknown case $2" ;;
esac
echo "passed: $2"
