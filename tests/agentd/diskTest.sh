#!/usr/bin/env bash
# The agent and the disk below its depot: `diskTest.sh BUILD_DIR CASE`. A simulated host shows which
# samples are missing or wrong. A case that needs what is not there is skipped with the reason.
#   refusals   files that cannot be opened, and a limit of descriptors: status 1, the depot is whole
#   replaced   a depot made anew by another process, while the agent runs, belongs to that one
#   sizeLimit  the limit of a file's size is an error of the write and does not end the agent
# Longer, run by hand:
#   cuts [COPIES]  copies of the block device while the agent writes: power cuts (as root)
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
   start --interval 1 --backend simulated --sim "$host" --config "$dir/c.xml" "$@"
}

# Kills the agent and notes its runs: now the journal alone has the newest samples.
killIt() {
   kill -9 "$agent"
   wait "$agent" 2>/dev/null || true
   agent=
   runsOf "$dir/log" >>"$runs"
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
   local i asNobody=()
   for i in 1 2; do # for both of the journal's files
      startSimulated
      waitFor hasRuns 2
      killIt
   done
   expectWhole
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
      files)
         ! grep -q '^METRIX_SANITIZE:.*=.' "$build/CMakeCache.txt" || continue # they need some, too
         attempt '*' "$text" bash -c "ulimit -n $value; exec \"\$@\"" -
         ;;
      esac
      echo "$kind $value"
      expectWhole
   done <<'END'
mode hostAgentStats.xml       Permission denied
mode hostAgentStats.idMap     Permission denied
mode hostAgentStats-1.stats   Permission denied
mode hostAgentStats-300.stats Permission denied
mode hostAgentStats.journal.0 Permission denied
mode hostAgentStats.journal.1 Permission denied
mode hostAgentStats.lock      Permission denied
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

mountOn() { # DIRECTORY MOUNT_ARGUMENTS...
   mkdir -p "$1"
   mount "${@:2}" "$1" || skip "cannot mount here"
   mounts="$1 $mounts"
}

# Of a power cut that came between these two states of the log.
runsBetween() { # EARLIER LATER
   runsOf "$1" | grep -v cut >"$dir/finished"
   runsOf "$2" | awk -v known="$dir/finished" 'BEGIN { while ((getline line < known) > 0) done[line] = 1 }
      { print $0 ($0 in done || / cut/ ? "" : " cut") }'
}

cuts() { # [COPIES]
   local i outer=$dir/outer # its copies are made in no time: each is a state of the device
   [ "$(id -u)" -eq 0 ] || skip "mounting needs root"
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

case $2 in
refusals | replaced | sizeLimit | cuts) "${@:2}" ;;
*) fail "unknown case $2" ;;
esac
echo "passed: $2"
