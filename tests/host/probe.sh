#!/usr/bin/env bash
# Runs in the booted host: the agent under its unit, with a virtual machine in each place where libvirt
# puts one. Its figures must be those of /proc, the control groups and libvirt.
#
# No verdict depends on speed. A counter is read from its source, from the agent, and from its source
# again; after a second such reading, its growth must lie between the two bounds that follow.
set -euo pipefail
source vm/lab.sh
lab=mx
labDir=/var/lib/libvirt/images
labPatience=300
interval=5
granularityMs=50 # of the kernel's accounting, by process and by group
failed=

step() { printf '%6.1f s  %s\n' "$(cut -d ' ' -f 1 /proc/uptime)" "$*"; }
wrong() {
   echo "   WRONG: $*"
   failed=1
}
fail() {
   echo "FAILED: $*"
   journalctl --no-pager -o cat -u agentd | tail -n 60
   exit 1
}
waitFor() { labWait "$@" || fail "this never happens: $*"; }
ctl() { /usr/lib/metrix/bin/agentctl "$@"; }

setUp() {
   install -D -t /usr/lib/metrix/bin bin/*
   install -D -t /usr/lib/metrix/lib lib/*
   install -D -m 644 packaging/agentd.sysusers /usr/lib/sysusers.d/agentd.conf
   install -D -m 644 packaging/agentd.service -t /etc/systemd/system
   systemd-sysusers
   # At this speed a figure in MHz is one in milliseconds of CPU time per second.
   echo "<config><agentd><cpuMhz>1000</cpuMhz></agentd></config>" >/etc/agentd.xml
   mkdir /etc/systemd/system/agentd.service.d
   printf '[Service]\nExecStart=\nExecStart=/usr/lib/metrix/bin/agentd --config /etc/agentd.xml --interval %d\n' \
      $interval >/etc/systemd/system/agentd.service.d/interval.conf
   systemctl daemon-reload
}

# Defines a VM like mx-a in another place. Prints its UUID.
copyVm() { # NAME ELEMENTS: of its definition
   local uuid
   uuid=$(cat /proc/sys/kernel/random/uuid)
   cp "$labDir/mx-a.qcow2" "$labDir/$1.qcow2"
   sed "s|mx-a|$1|; s|<uuid>.*<|<uuid>$uuid<|; /<mac /d; s|<vcpu|${2//$'\n'/}&|" definition >"$1.xml"
   virsh -q define "$1.xml"
   echo "$uuid"
}

startVms() {
   local name
   echo 32 >/proc/sys/vm/nr_hugepages
   a=$(labVm mx-a "" quiet)
   virsh dumpxml mx-a >definition
   # With more memory than QEMU itself needs, so that the two cannot be mistaken for each other.
   sed -i 's|>32768<|>65536<|' definition
   b=$(copyVm mx-b '<memoryBacking><hugepages/></memoryBacking>
      <resource><partition>/machine/gold/web</partition></resource>')
   c=$(labVm mx-c mx-busy busy)
   virsh dumpxml mx-c | sed 's|/machine/mx-busy<|/custom<|' >definition
   virsh -q undefine mx-c
   virsh -q define definition
   for name in a b c; do
      virsh -q start mx-$name
   done
   for name in a b c; do
      waitFor labSendsFrames mx-$name
   done
   virsh -q schedinfo mx-c --live --set vcpu_quota=20000 >/dev/null
}

cpuMs() { # VM...: CPU time of their processes
   local vm sum=0
   for vm; do
      sum=$((sum + $(labCpuTicks "$vm")))
   done
   echo $((sum * 10))
}

stats() { # VM FIELD DIVISOR: from libvirt's answer in the file "stats"
   awk -F = -v domain="Domain: '$1'" -v field="  $2" -v divisor="$3" '
      /^Domain/ { found = $0 == domain } found && $1 == field { print int($2 / divisor) }' stats
}
diskKb() { awk -v field="$1" '$3 == "vda" { print int($field / 2) }' /proc/diskstats; } # FIELD
status() { awk -v field="$2:" '$1 == field { print $2 }' "/proc/$(labPid "$1")/status"; }   # VM FIELD

# ENTITY METRIC TOLERANCE SOURCE, those of an entity together.
counters() {
   cat <<END
$a cpu.usagemhz.none $granularityMs cpuMs mx-a
$a cpu.used:0 1 stats mx-a vcpu.0.time 1000000
$a cpu.ready:0 1 stats mx-a vcpu.0.delay 1000000
$a disk.read:vda 1 stats mx-a block.0.rd.bytes 1024
$b cpu.usagemhz.none $granularityMs cpuMs mx-b
$b net.transmitted:4000 1 stats mx-b net.0.tx.bytes 1024
$c cpu.usagemhz.none $granularityMs cpuMs mx-c
$c disk.numberWrite:vda 0 stats mx-c block.0.wr.reqs 1
$c net.packetsTx:4000 0 stats mx-c net.0.tx.pkts 1
pool:gold cpu.usagemhz.none $granularityMs cpuMs mx-b
pool:gold/web cpu.usagemhz.none $granularityMs cpuMs mx-b
ha-root-pool cpu.usagemhz.none $((2 * granularityMs)) cpuMs mx-a mx-b
ha-host sys.resourceCpuUsage.none:/custom.slice $granularityMs cpuMs mx-c
ha-host disk.write:vda 1 diskKb 10
END
}

# Reads the raw values of the agent's newest run into the array `readings`.
isRead() { # SECOND ENTITY METRIC...: whether that run is not before SECOND
   local row since=$1 value
   shift
   row=$(ctl query "$@" --interval 0 --format csv 2>/dev/null | tail -n +2 | tr -d '\r')
   IFS=, read -ra readings <<<"$row" || true
   [ ${#readings[@]} -eq $# ] && [ "$(date -d "${readings[0]}" +%s)" -ge "$since" ] || return
   for value in "${readings[@]}"; do
      [ -n "$value" ] || return
   done
}

readSources() {
   virsh domstats >stats
   counters | while read -r _ _ _ source; do
      $source
   done
}

# "LOW READING HIGH" of each counter: the readings are of a run that uses nothing older than LOW.
readCounters() { # FILE
   local since entity metrics=()
   readSources >low
   since=$(($(date +%s) + 3 * interval))
   for entity in $(counters | cut -d ' ' -f 1 | uniq); do
      mapfile -t metrics < <(counters | awk -v entity="$entity" '$1 == entity { print $2 }')
      waitFor isRead $since "$entity" "${metrics[@]}"
      printf '%s\n' "${readings[@]:1}"
   done >agent
   readSources >high
   paste -d ' ' low agent high >"$1"
}

# Two bounds that are close enough: the longer it takes to read, the longer the counters have to grow.
hasGrown() {
   readCounters second
   paste -d ' ' <(counters | cut -d ' ' -f 1-3) first second >growth
   awk '{ least = $7 - $6; most = $9 - $4 } most == 0 || least * 3 < most { exit 1 }' growth
}

checkGrowth() {
   labWait hasGrown || wrong "some counters do not grow"
   awk '{ least = $7 - $6; grown = $8 - $5; most = $9 - $4
      isRight = grown > 0 && least - $3 <= grown && grown <= most + $3
      printf "   %s %-37s %-40s %d, %d to %d expected\n", isRight ? "     " : "WRONG", $1, $2, grown, least, most
      wrong += !isRight } END { exit wrong > 0 }' growth || failed=1
}

# A gauge of a machine that does next to nothing.
checkNear() { # ENTITY METRIC EXPECTED
   labPatience=60 labWait isRead 0 "$1" "$2" || {
      wrong "no $2 of $1"
      return
   }
   echo "         $1 $2 ${readings[1]}, about $3 expected"
   [ $((readings[1] * 10)) -ge $(($3 * 9)) ] && [ $((readings[1] * 10)) -le $(($3 * 11)) ] || wrong "$2 of $1"
}

checkMemory() {
   local rss web
   rss=$(status mx-a VmRSS)
   web=$(awk '/^(anon|shmem) / { sum += $2 } END { print int(sum / 1024) }' \
      /sys/fs/cgroup/machine.slice/machine-gold.slice/machine-gold-web.slice/memory.stat)
   checkNear "$a" mem.granted.none $((rss < 32768 ? rss : 32768))
   checkNear "$b" mem.granted.none "$(status mx-b HugetlbPages)"
   checkNear "$b" mem.consumed.none "$(status mx-b HugetlbPages)"
   checkNear "pool:gold/web" mem.granted.none "$web"
}

isLimited() { isRead 0 "$c" rescpu.maxLimited1 && [ "${readings[1]}" -gt 0 ]; }

checkEntities() {
   ctl entities >entities
   awk -v a="$a" -v b="$b" -v c="$c" '{ parent[$2] = $5 }
      END { exit !(parent[a] == "ha-root-pool" && parent[b] == "pool:gold/web" && parent[c] == "ha-root-pool" &&
                   parent["pool:gold/web"] == "pool:gold") }' entities ||
      wrong "entities: $(cat entities)"
}

checkStop() {
   systemctl stop agentd
   systemctl show agentd -p Result,ExecMainStatus,NRestarts | xargs >result
   grep -qx 'NRestarts=0 Result=success ExecMainStatus=0\|Result=success NRestarts=0 ExecMainStatus=0' result ||
      wrong "the unit ends with $(cat result)"
}

step "installing"
setUp
step "starting virtual machines"
startVms
step "starting the agent"
systemctl start agentd
waitFor isRead 0 "$b" cpu.usagemhz.none
checkEntities
step "counters"
readCounters first
step "memory, quota"
checkMemory
labPatience=100 labWait isLimited || wrong "a quota does not limit"
step "growth"
checkGrowth
step "stopping"
checkStop
step "done"
[ -z "$failed" ] || fail "see above"
