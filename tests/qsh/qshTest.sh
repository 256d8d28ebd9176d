#!/usr/bin/env bash
# The diagnostic shell from outside: `qshTest.sh BUILD_DIR CASE` runs one case against the built
# programs.
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
   "$build/bin/agentd" --state-dir "$dir" --mockup --interval 1 --runs 1 2>"$dir/err" ||
      fail "no depot: exit status $?"
}

expect() { # STATUS STDOUT_REGEX STDERR_REGEX ARGUMENTS...; each matches the whole, "" nothing at all
   local status=0 wanted=$1 out=$2 err=$3
   shift 3
   "$qsh" "$@" >"$dir/out" 2>"$dir/err" </dev/null || status=$?
   [ $status -eq "$wanted" ] || fail "status $status of $*"
   [[ $(<"$dir/out") =~ ^($out)$ ]] || fail "$* prints something else"
   [[ $(<"$dir/err") =~ ^($err)$ ]] || fail "$* has other errors"
}

names() { # those of entity $1, sorted by number
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
      [ "$(names "n$number" | wc -l)" -eq "${number#*:}" ] || fail "$number stats"
   done
   for number in "''" x 0x 08 3x 2147483648 99999999999999999999; do
      expect 1 '' 'numStats: .*is not.*' -c "$load; $depot/createDummyStats h2 test $number"
   done
   expect 0 'Time taken for DeleteEntityStats : [0-9]+ ms' '' -c "$load; $depot/deleteEntityStats h1"
   [ -z "$(names h1)$(names h2)" ] || fail "left: $(names h1) $(names h2)"
   [ "$(names n3:3 | tr '\n' ' ')" = "t x-0 t x-1 t x-2 " ] || fail "another entity's: $(names n3:3)"
   expect 1 '' '.+' -c "$load; $depot/createDummyStats n010:8 't x' 1" # it is there
   # A depot that cannot be loaded leaves the one that is.
   expect 1 'Time taken for Delete.*' '.*/none/.*' \
      -c "$load; $depot/load $dir/none/ hostAgentStats; $depot/deleteEntityStats n3:3"
   [ -z "$(names n3:3)" ] || fail "the loaded depot was given up"
   ;;

statuses)
   first='StatsDepot needs to be loaded/created first'
   expect 1 '' "$first" -c "$depot/getStatNames h"
   expect 1 '' "$first" -c "$depot/deleteEntityStats h"
   expect 1 '' "$first" -c "$depot/createDummyStats h b 1"
   expect 1 '' 'Insufficient arguments\.' -c "$depot/load $dir/"
   expect 1 '' 'Too many arguments\.' -c "$depot/deleteEntityStats two words"
   expect 1 '' 'Unknown option: --all' -c "$depot/getStatNames --all h"
   expect 1 '' 'Unknown command: load \(help lists them\)' -c load
   expect 1 '' 'Unknown command: x \(help lists them\)' -c 'help x'
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
   expect 1 '' 'qsh: .*libmetrix\.so: .*there already: .*' --plugin "$build/lib/libmetrix.so" --plugin "$build/lib/libmetrix.so"
   printf '# comment\n\n  help a\nhelp "b\nhelp %s/load' $depot |
      "$qsh" >"$dir/out" 2>"$dir/err" && fail "status 0" || [ $? -eq 1 ] || fail "status $?"
   [ "$(wc -l <"$dir/err")" -eq 2 ] && grep -q '^A quote is not closed: "$' "$dir/err" || fail "of a script"
   grep -q 'Loads an existing' "$dir/out" || fail "the last line, without an end, did not run"
   ! "$qsh" -c help >/dev/full 2>"$dir/err" || fail "what cannot be written counts as success"
   ;;

terminal)
   makeDepot
   mkfifo "$dir/keys"
   HOME=$dir TERM=vt100 setsid script -qfec "$qsh" "$dir/out" <"$dir/keys" >/dev/null &
   session=$!
   exec 3>"$dir/keys"
   shows() { # COUNT TEXT: within ten seconds the terminal shows it for the COUNTth time
      for ((i = 0; i < 100; ++i)); do
         [ "$(grep -aoF -- "$2" "$dir/out" 2>/dev/null | wc -l)" -lt "$1" ] || return 0
         sleep 0.1
      done
      fail "the terminal does not show: $2"
   }
   shows 1 "qsh> "
   printf 'met\t' >&3 # up to where commands differ
   shows 1 "rix/statsDepot/"
   printf 'lo\t%s/stats/ hostAgentStats\r' "$dir" >&3
   shows 2 "qsh> "
   printf 'never/run\003\003' >&3 # with something in the line and with nothing
   shows 4 "qsh> "
   printf 'help %s/g\t\r' "$depot" >&3
   shows 1 "Get the names of all stats"
   shows 5 "qsh> "
   printf '%s/getStatNames ha-host\r' "$depot" >&3
   shows 1 "cpu-usage#0"
   shows 6 "qsh> "
   printf 'quit\r' >&3
   wait $session || fail "exit status $?"
   session=
   ! grep -aqE "Unknown|needs to be loaded" "$dir/out" || fail "a line went wrong"
   grep -q "load.*hostAgentStats" "$dir/.qsh_history" || fail "the history is not kept"
   ! grep -q "never" "$dir/.qsh_history" || fail "a dropped line is kept"
   ;;

*) fail "unknown case $2" ;;
esac
echo "passed: $2"
