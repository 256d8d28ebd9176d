#!/usr/bin/env bash
# The agent on its simulated host: `[SIM_SEED=N] simTest.sh BUILD_DIR CASE [RUNS]`.
#   samples  200 virtual machines; every sample in the depot is compared with the host's model
#   events   the same with random events during the runs, 1000 a minute, and with late readings; the
#            log says which devices the host had from when on
# A busy machine makes runs late and lets the agent skip boundaries. So the agent's log says which
# runs it made: exactly those must be in the depot, and it must have reported every boundary skipped.
set -euo pipefail
build=$1
runs=${3:-15}
seed=${SIM_SEED:-$RANDOM}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

fail() {
   echo "FAILED: $*" >&2
   tail -n 20 "$dir/log" >&2
   exit 1
}

case $2 in
samples) host=vms=200,pools=20,disks=8,nics=4,seed=$seed ;;
events) host=vms=50,pools=10,events=1000,stuck=3,failing=3,late=20,seed=$seed ;;
esac
echo "simulated host: $host"
cat >"$dir/config.xml" <<X
<config><agentd><logLevel>debug</logLevel></agentd></config>
X
"$build/bin/agentd" --backend simulated --sim "$host" --config "$dir/config.xml" --state-dir "$dir" \
   --interval 1 --runs "$runs" --listen none 2>"$dir/log" || fail "the agent ends with $?"

# A new depot begins with an error about the missing one.
expected='Unable to load stats depot|No collection has ended'
! grep '^<3>' "$dir/log" | grep -vE "$expected" >"$dir/errors" || fail "$(cat "$dir/errors")"

sed -n 's/.*Collection Time \([0-9]*\)$/\1/p' "$dir/log" >"$dir/runs"
sed -n 's/.* skipped \([0-9]\{1,\}\) .*/\1/p' "$dir/log" >"$dir/skipped"
made=$(wc -l <"$dir/runs")
missing=$(awk 'NR > 1 { sum += $1 - last - 1 } { last = $1 } END { print sum + 0 }' "$dir/runs")
skipped=$(awk '{ sum += $1 } END { print sum + 0 }' "$dir/skipped")
echo "$made runs; $missing boundaries without a run, $skipped reported as skipped"
[ "$made" -ge "$runs" ] || fail "$made of $runs runs were made"
# Less, because a boundary that passes while a run ends may be reported although its run follows.
[ "$missing" -le "$skipped" ] || fail "the agent has not reported all boundaries that it skipped"

sed -n 's/.*Process time : \([0-9]*\).*/\1/p' "$dir/log" | sort -n |
   awk '{ us[NR] = $1 } END { print "CPU time of a run, microseconds: median", us[int((NR + 1) / 2)] ", highest", us[NR] }'
sed -n 's/.*Simulated change: //p' "$dir/log" >"$dir/changes"
"$build/bin/simCheck" "$dir/stats/" hostAgentStats "$host" "$dir/runs" "$dir/changes" || fail "samples differ"
if [ "$2" = events ]; then
   grep -c "EntityRemovedListener: Deleting stats for entity vm-" "$dir/log" >/dev/null || fail "nothing was unregistered"
   sed -n 's/.*<5>Host: /   /p' "$dir/log"
fi
