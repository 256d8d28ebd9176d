#!/usr/bin/env bash
# Tests the built diagnostic shell: `qshTest.sh BUILD_DIR CASE` runs one case.
set -euo pipefail
build=$1
qsh=$build/bin/qsh
dir=$(mktemp -d)
session=
trap '[ -z "$session" ] || kill -9 "$session" 2>/dev/null || true; rm -rf "$dir"' EXIT
depot=metrix/statsDepot
load="$depot/load $dir/stats/ hostAgentStats"

fail() {
   echo "FAILED: $*" >&2
   tail -n 40 "$dir"/out "$dir"/err >&2 2>/dev/null || true
   exit 1
}

makeDepot() {
   "$build/bin/agentd" --listen none --state-dir "$dir" --mockup --interval 1 --runs 1 2>"$dir/err" ||
      fail "no depot: exit status $?"
}

expect() { # STATUS STDOUT_REGEX STDERR_REGEX ARGUMENTS...; a regex must match all of the output
   local status=0 wanted=$1 out=$2 err=$3
   shift 3
   "$qsh" "$@" >"$dir/out" 2>"$dir/err" </dev/null || status=$?
   [ $status -eq "$wanted" ] || fail "status $status of $*"
   [[ $(<"$dir/out") =~ ^($out)$ ]] || fail "unexpected output of $*"
   [[ $(<"$dir/err") =~ ^($err)$ ]] || fail "unexpected errors of $*"
}

names() { # ENTITY: its stat names, sorted by number
   "$qsh" -c "$load; $depot/getStatNames $1" | sort -t - -k 2n
}

case $2 in
depot)
   makeDepot
   [ "$(names ha-host | sort -u | grep -c '^[a-z][A-Za-z]*-[A-Za-z0-9#.]*$')" -eq 24 ] &&
      [ "$(names ha-host | wc -l)" -eq 24 ] || fail "not 24 names of ha-host"
   expect 0 'Time taken for CreateDummyStats : [0-9]+ ms' '' -c "$load; $depot/createDummyStats h1 test 0x10"
   [ "$(names h1 | tr '\n' ' ')" = "$(printf 'test-%d ' {0..15})" ] || fail "h1 has: $(names h1)"
   for number in 010:8 3:3 0:0 -4:0; do
      expect 0 'Time taken.*' '' -c "$load; $depot/createDummyStats n$number 't x' ${number%:*}"
      [ "$(names "n$number" | wc -l)" -eq "${number#*:}" ] || fail "createDummyStats $number"
   done
   for number in "''" x 0x 08 3x 2147483648 99999999999999999999; do
      expect 1 '' 'numStats: .* is not .*' -c "$load; $depot/createDummyStats h2 test $number"
   done
   expect 0 'Time taken for DeleteEntityStats : [0-9]+ ms' '' -c "$load; $depot/deleteEntityStats h1"
   [ -z "$(names h1)$(names h2)" ] || fail "not deleted: $(names h1) $(names h2)"
   [ "$(names n3:3 | tr '\n' ' ')" = "t x-0 t x-1 t x-2 " ] || fail "another entity has: $(names n3:3)"
   expect 1 'Time taken.*' 'Stat t-0 of h3 exists already; 0 of 2 stats were created' \
      -c "$load; $depot/createDummyStats h3 t 1; $load; $depot/createDummyStats h3 t 2"
   # If a depot cannot be loaded, the previous one stays loaded.
   expect 1 'Time taken for Delete.*' '.*/none/.*' \
      -c "$load; $depot/load $dir/none/ hostAgentStats; $depot/deleteEntityStats n3:3"
   [ -z "$(names n3:3)" ] || fail "the depot did not stay loaded"
   ;;

locked)
   makeDepot
   exec 9<>"$dir/stats/hostAgentStats.lock"
   flock 9
   printf %d $$ >&9
   used="StatsDepot is used by process $$; it is loaded for reading only"
   expect 0 "$used.*cpu-usage#0.*" '' -c "$load; $depot/getStatNames ha-host"
   for command in 'deleteEntityStats ha-host' 'createDummyStats h1 t 1'; do
      expect 1 "$used" "StatsDepot is used by process $$; .*" -c "$load; $depot/$command"
   done
   exec 9>&-
   expect 0 'Time taken.*' '' -c "$load; $depot/createDummyStats h1 t 1"
   [ "$(names ha-host | wc -l) $(names h1)" = "24 t-0" ] || fail "a refused command changed the depot"
   ;;

statuses)
   first='StatsDepot needs to be loaded/created first'
   for command in 'getStatNames h' 'deleteEntityStats h' 'createDummyStats h b x'; do
      expect 0 "$first" '' -c "$depot/$command"
   done
   expect 1 '' 'Insufficient arguments\.' -c "$depot/load $dir/"
   expect 1 '' 'Too many arguments\.' -c "$depot/deleteEntityStats two words"
   expect 1 '' 'Unknown option: --all' -c "$depot/getStatNames --all h"
   expect 1 '' 'Unknown command: load \(help lists the commands\)' -c load
   expect 1 '' 'Unknown command: x \(help lists the commands\)' -c 'help x'
   expect 0 "$depot/load depotDir depotName.Loads.*depotName +string +StatsDepot name" '' -c "$depot/load x -h"
   expect 0 "Operations for .*createDummyStats entityId baseStatName numStats.*" '' -c "help $depot/"
   expect 0 "metrix: stats related ops.*$depot/: Commands for.*/getStatNames entityId.*quit.*" '' -c help
   expect 1 "$depot/load depotDir.*" "Unknown command: a;b .*Unknown command: c .*" \
      -c "'a;b'; c;; $depot/load --help; quit; d"
   expect 0 '' '' -c ''
   expect 2 '' 'qsh: .*--nonsense.*' --nonsense
   expect 2 '' 'qsh: .*' a-word
   expect 0 'qsh 1\..*' '' --version
   expect 1 '' 'qsh: Cannot load .*/none\.so: .*' --plugin "$dir/none.so"
   expect 1 '' 'qsh: .*libcorvax\.so does not export GetQshPluginEntry' \
      --plugin "$build/lib/libcorvax.so" -c help
   expect 1 '' 'qsh: .*libmetrix\.so: Command .* already exists' --plugin "$build/lib/libmetrix.so" --plugin "$build/lib/libmetrix.so"
   printf '# comment\n\n  help a\nhelp "b\nhelp %s/load' $depot |
      "$qsh" >"$dir/out" 2>"$dir/err" && fail "status 0" || [ $? -eq 1 ] || fail "status $?"
   [ "$(wc -l <"$dir/err")" -eq 2 ] && grep -q '^A quote is not closed: "$' "$dir/err" || fail "unexpected errors of a script"
   grep -q 'Loads an existing' "$dir/out" || fail "the last line, which has no line feed, did not run"
   ! "$qsh" -c help >/dev/full 2>"$dir/err" || fail "a failed write is not reported"
   ;;

terminal)
   makeDepot
   mkfifo "$dir/keys" "$dir/screen"
   exec 3<>"$dir/keys" 4<>"$dir/screen"
   HOME=$dir TERM=vt100 setsid script -qfec "$qsh" "$dir/out" <"$dir/keys" >"$dir/screen" 3>&- 4>&- &
   session=$!
   shows() { # TEXT: reads what the terminal shows, up to this text
      local character seen=
      while [[ $seen != *"$1" ]]; do
         IFS= read -r -d '' -N 1 -t 60 character <&4 || fail "the terminal does not show: $1"
         seen+=$character
      done
   }
   shows "qsh> "
   printf 'met\t' >&3 # completes the common part of the commands
   shows "rix/statsDepot/"
   printf 'lo\t%s/stats/ hostAgentStats\r' "$dir" >&3
   shows "qsh> "
   printf 'never/run\003' >&3 # drops the line
   shows "qsh> "
   printf '\003' >&3 # drops an empty line
   shows "qsh> "
   printf 'help %s/g\t\r' "$depot" >&3
   shows "Get the names of all stats"
   shows "qsh> "
   printf '%s/getStatNames ha-host\r' "$depot" >&3
   shows "cpu-usage#0"
   shows "qsh> "
   printf 'quit\r' >&3
   wait $session || fail "exit status $?"
   session=
   ! grep -aqE "Unknown|needs to be loaded" "$dir/out" || fail "a command failed"
   grep -q "load.*hostAgentStats" "$dir/.qsh_history" || fail "the history is not saved"
   ! grep -q "never" "$dir/.qsh_history" || fail "a dropped line is in the history"
   ;;

*) fail "unknown case $2" ;;
esac
echo "passed: $2"
