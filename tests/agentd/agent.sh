# Shared by the tests of the agent from outside, which are called with the build's directory first.
# Waits are for conditions, so that a busy machine makes a case slow and never red.
build=$1
agentd=$build/bin/agentd
dir=$(mktemp -d)
agent=
helper= # another process that ends with the test

cleanUp() {
   { kill -9 $agent $helper; wait; } 2>/dev/null || true
   rm -rf --one-file-system "$dir"
}
trap cleanUp EXIT

fail() {
   echo "FAILED: $*" >&2
   tail -n 40 "$dir"/log* >&2 2>/dev/null || true
   exit 1
}

skip() {
   echo "skipped: $*"
   exit 77
}

waitFor() { # COMMAND...: until it succeeds; fails the case after two minutes
   local end=$(($(date +%s) + 120))
   until "$@"; do
      [ "$(date +%s)" -lt $end ] || fail "waited in vain for: $*"
      sleep 0.1
   done
}

isRunning() { kill -0 "$agent" 2>/dev/null || fail "the agent has ended"; }

hasRuns() { # COUNT: finished since the start, by the log
   [ "$(grep -c ' Process time : ' "$dir/log")" -ge "$1" ] && return
   isRunning
   return 1
}

# Two times in three until a run is under way or has just ended.
sleepToRun() {
   local us=$((RANDOM % 1000000)) now
   if [ $((RANDOM % 3)) -ne 0 ]; then
      now=$(date +%s%N)
      us=$((1000000 - now / 1000 % 1000000 + RANDOM % 30000))
   fi
   sleep "$((us / 1000000)).$(printf %06d $((us % 1000000)))"
}

config() { printf '<config>\n  %s\n</config>\n' "$1" >"$dir/c.xml"; }

start() { # ARGUMENTS...: the agent in the background, its report in out
   : >"$dir/out"
   : >"$dir/log"
   "$agentd" --listen "${listen:-none}" --state-dir "$dir" --report "$@" >>"$dir/out" 2>"$dir/log" &
   agent=$!
}

stop() { # SIGNAL
   kill -"$1" "$agent"
   wait "$agent" || fail "exit status $? after SIG$1"
   agent=
}

# Of the log of an agent that was killed or has ended, with debug messages of the collection: a line
# for each run, as simCheck wants them.
runsOf() { # LOG
   awk '/ Collection Time [0-9]+$/ { if (time) print time first, "cut"; first = n++ ? "" : " first"; time = $NF }
        / Process time : / { print time first; time = "" }
        END { if (time) print time first, "cut" }' "$1"
}
kDebugRuns='<plugins><metrix><logLevelTemp>debug</logLevelTemp></metrix></plugins>'
