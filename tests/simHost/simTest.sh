#!/usr/bin/env bash
# The agent on its simulated host: `simTest.sh BUILD_DIR CASE [SECONDS]`.
#   samples  200 virtual machines; every sample in the depot is held against its function
#   events   power, unregister and pool events all the while, 1000 a minute
set -euo pipefail
build=$1
seconds=${3:-15}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

fail() {
   echo "FAILED: $*" >&2
   tail -n 20 "$dir/log" >&2
   exit 1
}

case $2 in
samples) host=vms=200,pools=20,disks=8,nics=4,seed=$RANDOM ;;
events) host=vms=50,pools=10,events=1000,stuck=3,failing=3,seed=$RANDOM ;;
esac
echo "simulated host: $host"
cat >"$dir/config.xml" <<X
<config><plugins><metrix><logLevelTemp>debug</logLevelTemp></metrix></plugins></config>
X
"$build/bin/agentd" --backend simulated --sim "$host" --config "$dir/config.xml" --state-dir "$dir" \
   --interval 1 --runs "$seconds" --listen none 2>"$dir/log" || fail "the agent ends with $?"
# A new depot begins with an error about the one that is not there. Where sanitizers make all of it
# slow, runs may come late.
late='skipped|No collection has ended'
! grep -E "^<3>|$late" "$dir/log" | grep -vE "Unable to load stats depot${METRIX_SLOW:+|$late}" >"$dir/trouble" ||
   fail "$(cat "$dir/trouble")"
sed -n 's/.*Process time : \([0-9]*\).*/\1/p' "$dir/log" | sort -n |
   awk '{ us[NR] = $1 } END { print "CPU time of a run, microseconds: median", us[int((NR + 1) / 2)] ", most", us[NR] }'
"$build/bin/simCheck" "$dir/stats/" hostAgentStats "$host" || fail "samples differ"
if [ "$2" = events ]; then
   grep -c "EntityRemovedListener: Deleting stats for entity vm-" "$dir/log" >/dev/null || fail "nothing was unregistered"
   sed -n 's/.*<5>Host: /   /p' "$dir/log"
fi
