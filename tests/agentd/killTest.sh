#!/usr/bin/env bash
# The agent killed again and again: `killTest.sh BUILD_DIR [ROUNDS]`, 50 rounds by default. After each
# the depot has no damage and every sample of every finished run, and none that was not taken. Some of
# the depots, side by side, have no journal. Prints the sums.
set -euo pipefail
. "$(dirname "$0")/agent.sh"
rounds=${2:-50}
host=vms=5,pools=2,disks=2,nics=1
checkpoints=(300 300 2 0 0) # of each depot

isUp() { grep '>agentd: agentd .* runs with ' "$dir/log" >/dev/null || { isRunning && return 1; }; }

check() { # after a kill
   local status=0
   "$build/bin/metrix-depot" check "$dir/stats" >"$dir/check" || status=$?
   [ $status -eq 0 ] || { cat "$dir/check"; fail "the depot has faults after $kills kills"; } >&2
   "$build/bin/simCheck" "$dir/stats/" hostAgentStats $host "$dir/runs" >"$dir/samples" || status=$?
   awk '/ samples compared, / { print $3, $7, $5 - $7 }' "$dir/samples" >>"$dir/sums"
   [ $status -eq 0 ] || { cat "$dir/samples"; fail "samples differ after $kills kills"; } >&2
}

killOften() { # DEPOT CHECKPOINT_SEC ROUNDS: in a directory of its own
   trap '{ kill -9 $agent; } 2>/dev/null || true' EXIT
   trap 'exit 1' TERM
   dir=$dir/$1
   mkdir "$dir"
   config "<plugins><metrix><checkpointSec>$2</checkpointSec><logLevelTemp>debug</logLevelTemp></metrix></plugins>"
   : >"$dir/runs"
   for ((kills = 1; kills <= $3; ++kills)); do
      start --interval 1 --backend simulated --sim $host --config "$dir/c.xml"
      waitFor isUp
      waitFor hasRuns $((RANDOM % 3))
      sleepToRun
      kill -9 "$agent" 2>/dev/null || fail "the agent has ended"
      wait "$agent" 2>/dev/null || true
      agent=
      ! grep -E '^<[0-3]>|aside' "$dir/log" | grep -v ' Unable to load stats depot' ||
         fail "errors after $kills kills"
      runsOf "$dir/log" >>"$dir/runs"
      echo "kill" >>"$dir/sums"
      ! grep -qv cut "$dir/runs" || check
   done
}

sums() {
   trap - INT TERM
   { kill $lanes; wait $lanes; } 2>/dev/null || true
   cat "$dir"/*/sums 2>/dev/null | awk '/kill/ { ++kills; next } { samples += $1; lost += $2; invented += $3 }
      END { printf "%d kills, %d values compared, %d lost, %d invented\n", kills, samples, lost, invented }'
}

lanes=
trap 'sums; cleanUp' EXIT
trap 'exit 1' INT TERM
for i in "${!checkpoints[@]}"; do
   killOften "$i" "${checkpoints[i]}" $(((rounds + i) / ${#checkpoints[@]})) &
   lanes="$lanes $!"
done
status=0
for lane in $lanes; do
   wait "$lane" || status=1
done
exit $status
