#!/usr/bin/env bash
# Real virtual machines for tests: a private libvirtd with QEMU VMs under software emulation.
#
#    source vm/lab.sh; labPossible || exit 77; labEnter "$@"
#    trap labDown EXIT; labUp "$dir"; labPool "$lab-gold/web"; labVm "$lab-a" "$lab-gold/web" busy
#
# It has a mount and a network namespace to itself; only the control groups are the machine's, which
# is why names of VMs and pools begin with the lab's name ($lab).
# `lab.sh COMMAND...` runs a command (bash, to look around) in a lab without VMs.

export LIBVIRT_DEFAULT_URI=qemu:///system
lab=${LAB_NAME:-mx$$}
labSources=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
labPatience=100 # seconds until a wait gives up: far more than a busy machine needs

labFail() { echo "lab: $*" >&2 && return 1; }

labWait() { # COMMAND...: until it succeeds; fails when it does not within the lab's patience
   local end=$((SECONDS + labPatience))
   until "$@"; do
      [ $SECONDS -lt $end ] || return
      sleep 0.05
   done
}

# Control group mounts where libvirt puts VMs: it takes devices and CPU accounting from version 2
# wherever that is mounted, and every other controller from the version that has it.
labCgroups() {
   awk '$3 == "cgroup2" { print v2 = $2 }
      $3 == "cgroup" { controllers[$2] = "," $4 "," }
      END {
         wanted = ",(cpu|cpuset|memory|blkio|freezer|net_cls|perf_event" (v2 ? "" : "|cpuacct|devices") "),"
         for (path in controllers) if (controllers[path] ~ wanted) print path
      }' /proc/mounts
}

# Fails with the reason where there can be no lab.
labPossible() {
   local program cgroup
   [ "$(id -u)" -eq 0 ] || labFail "needs root" || return
   for program in libvirtd virsh qemu-system-x86_64 qemu-img tini ip as ld unshare setpriv taskset flock; do
      command -v $program >/dev/null || labFail "$program is not installed" || return
   done
   [ -c /dev/net/tun ] || labFail "no /dev/net/tun" || return
   unshare -m -n mount -n -t tmpfs lab /run || labFail "no namespaces or no mounts in them" || return
   [ -n "$(labCgroups)" ] || labFail "no control groups" || return
   for cgroup in $(labCgroups); do
      { mkdir "$cgroup/$lab-probe" && rmdir "$cgroup/$lab-probe"; } || labFail "cannot create a group in $cgroup" || return
   done
}

# Runs the calling script again inside namespaces of its own; returns there.
# tini adopts the QEMUs, which libvirt detaches, and reaps them at once: libvirt waits for that. It
# is the parent of the script, not of libvirtd, so that it outlives a killed daemon.
labEnter() { # ARGUMENTS OF THE SCRIPT...
   local directory namespace
   namespace=$(readlink /proc/self/ns/mnt)
   if [ "${LAB_OUTSIDE:-$namespace}" = "$namespace" ]; then
      LAB_OUTSIDE=$namespace exec unshare -m -n -- tini -s -g -- setpriv --pdeathsig TERM -- bash "$0" "$@"
   fi
   [ -z "${LAB_NAME:-}" ] || return 0
   export LAB_NAME=$lab
   for directory in /run /etc /var/lib /var/cache /var/log; do
      mkdir -p $directory/libvirt
      mount -n -t tmpfs lab $directory/libvirt
   done
   # A sysfs that shows the NICs of this network namespace, with the control groups as they were.
   mkdir /run/libvirt/cgroup
   mount -n --move /sys/fs/cgroup /run/libvirt/cgroup
   mount -n -t sysfs lab /sys
   mount -n --move /run/libvirt/cgroup /sys/fs/cgroup
   # libvirtd does not start without this user, although the VMs run as root.
   cp /etc/passwd /etc/group /run/libvirt
   echo "libvirt-qemu:x:64055:64055::/:/usr/sbin/nologin" >>/run/libvirt/passwd
   echo "libvirt-qemu:x:64055:" >>/run/libvirt/group
   mount -n --bind /run/libvirt/passwd /etc/passwd
   mount -n --bind /run/libvirt/group /etc/group
   # Taps without neighbour discovery: only what VM and test send moves their counters.
   echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6
   ip link set lo up
   ip address add 192.0.2.1/32 dev lo
}

labSignal() { # SIGNAL NAME: to the lab's processes of that name; succeeds when there is none
   local process name alive=()
   for process in /proc/[0-9]*; do
      if [ "$process/ns/net" -ef /proc/self/ns/net ] && read -r name <"$process/comm" && [ "$name" = "$2" ]; then
         alive+=("${process#/proc/}")
      fi
   done 2>/dev/null
   [ ${#alive[@]} -gt 0 ] || return 0
   kill "-$1" "${alive[@]}" 2>/dev/null || true
   return 1
}

# Ends the lab's processes of that name (as in /proc/PID/comm); returns when they are gone.
labKill() { labWait labSignal "$1" "$2" || labFail "$2 does not end"; } # SIGNAL NAME

labStartDaemon() {
   # On one CPU: libvirt probes QEMU again whenever it finds itself on a CPU of another cpuid.
   if ! timeout $labPatience taskset -c 0 libvirtd -d -p /run/libvirt/libvirtd.pid -f "$labDir/libvirtd.conf" ||
      ! timeout $labPatience virsh -q version >/dev/null; then
      cat "$labDir/libvirtd.log" >&2
      labFail "libvirtd does not answer"
   fi
}

labKillDaemon() { labKill KILL libvirtd; }
labRestartDaemon() { labKill TERM libvirtd && labStartDaemon; }

labUp() { # DIRECTORY: for images and the log
   [ -n "${LAB_NAME:-}" ] || labFail "labUp before labEnter" || return
   export labDir=$1
   exec {labLock}</sys/fs/cgroup
   flock -s -w $labPatience "$labLock"
   printf '%s\n' 'user = "root"' 'group = "root"' 'security_driver = "none"' 'stdio_handler = "file"' \
      'dynamic_ownership = 0' 'remember_owner = 0' >/etc/libvirt/qemu.conf
   printf '%s\n' 'unix_sock_rw_perms = "0700"' 'auth_unix_rw = "none"' 'auth_unix_ro = "none"' \
      "log_outputs = \"3:file:$labDir/libvirtd.log\"" >"$labDir/libvirtd.conf"
   labStartDaemon
}

labTryRemoveGroup() { # DIRECTORY
   [ ! -d "$1" ] || find "$1" -depth -type d -exec rmdir {} + 2>/dev/null
}

# A group is busy for a moment after the end of its last process.
labRemoveGroup() { labWait labTryRemoveGroup "$1" || labFail "$1 is busy"; } # DIRECTORY: with those below

# Ends daemon and VMs, whatever state they are in, and forgets all definitions.
labDown() {
   local group
   [ -n "${labDir:-}" ] || return 0
   trap '' INT TERM
   # The last name is that of libvirtd's probes of QEMU; one stays behind when it is killed meanwhile.
   labKillDaemon && labKill KILL qemu-system-x86 && labKill KILL qemu-system-i38 || return
   rm -rf /run/libvirt/{libvirt,qemu}* {/etc,/var/lib,/var/cache}/libvirt/*
   for group in $(labCgroups | sed "s|\$|/machine/*$lab-*|"); do
      labRemoveGroup "$group" || return
   done
   # Only the last lab removes /machine: the libvirtd of another one may be about to use it.
   ! flock -n -x "$labLock" || labCgroups | sed 's|$|/machine|' | xargs rmdir 2>/dev/null || true
   flock -u "$labLock" # explicitly: children of the test may have inherited it
   exec {labLock}<&-
   unset labDir
   trap - INT TERM
}

# Prepares a group for groups below it (version 2) and for processes in it (version 1).
labOpenGroup() { # DIRECTORY
   local name controllers=
   [ ! -e "$1/cgroup.controllers" ] || controllers=$(<"$1/cgroup.controllers")
   for name in $controllers; do
      [[ $name != @(cpu|cpuset|io|memory) ]] || echo "+$name" >"$1/cgroup.subtree_control"
   done
   for name in cpuset.cpus cpuset.mems; do
      [ ! -e "$1/$name" ] || [ -e "$1/cgroup.type" ] || [ -n "$(<"$1/$name")" ] || cat "${1%/*}/$name" >"$1/$name"
   done
}

labPoolPath() { echo "machine/${1//\//.partition/}.partition"; }

labPool() { # PATH, "$lab-gold/web": creates the pool and its parents
   local cgroup level
   [[ $1 == "$lab-"* ]] || labFail "pool $1 does not begin with $lab-" || return
   for cgroup in $(labCgroups); do
      labOpenGroup "$cgroup"
      for level in $(labPoolPath "$1" | tr / ' '); do
         cgroup=$cgroup/$level
         mkdir -p "$cgroup"
         labOpenGroup "$cgroup"
      done
   done
}

labRemovePool() { # PATH: with the pools below it; waits until no VM runs in one
   local cgroup
   for cgroup in $(labCgroups); do
      labRemoveGroup "$cgroup/$(labPoolPath "$1")" || return
   done
}

# Defines a VM of 32 MiB with one disk and one NIC, whose tap has the VM's name. Prints its UUID,
# which depends on the name alone: a VM that is defined again has the same.
labVm() { # NAME [POOL] [busy|idle|quiet] [VCPUS]
   local image=$labDir/$1.qcow2 uuid ticks
   [[ $1 == "$lab-"* && ${#1} -le 15 ]] || labFail "VM $1 does not begin with $lab-, or is too long for a tap" || return
   case ${3:-idle} in
   busy) ticks=(--defsym SPIN_TICKS=2 --defsym HALT_TICKS=2) ;;
   idle) ticks=(--defsym SPIN_TICKS=0 --defsym HALT_TICKS=4) ;;
   quiet) ticks=(--defsym SPIN_TICKS=0 --defsym HALT_TICKS=36) ;;
   esac
   as --32 "${ticks[@]}" "$labSources/vmBoot.S" -o "$image.o"
   ld -m elf_i386 -Ttext 0x7c00 --oformat binary "$image.o" -o "$image.raw"
   truncate -s 8M "$image.raw"
   qemu-img convert -f raw -O qcow2 "$image.raw" "$image"
   rm "$image.o" "$image.raw"
   uuid=6c616200-0000-4000-8000-$(md5sum <<<"$1" | cut -c 1-12)
   virsh -q define /dev/stdin <<X
<domain type='qemu'>
  <name>$1</name><uuid>$uuid</uuid><vcpu>${4:-1}</vcpu>
  <memory unit='MiB'>32</memory><currentMemory unit='MiB'>32</currentMemory>
  ${2:+<resource><partition>/machine/$2</partition></resource>}
  <os><type arch='x86_64' machine='pc'>hvm</type><boot dev='hd'/></os><features><acpi/></features>
  <devices>
    <controller type='usb' model='none'/><memballoon model='virtio'/>
    <disk type='file'><driver name='qemu' type='qcow2'/><source file='$image'/><target dev='vda'/></disk>
    <interface type='ethernet'><target dev='$1' managed='yes'/><model type='rtl8139'/><rom enabled='no'/></interface>
  </devices>
</domain>
X
   echo "$uuid"
}

labSendsFrames() { [ "$(cat "/sys/class/net/$1/statistics/rx_packets")" -gt 0 ]; } # NAME

labStart() { # NAME: starts a VM and returns when its program runs
   virsh -q start "$1"
   labWait labSendsFrames "$1" || labFail "the program of $1 does not run"
}

labSend() { # NAME COUNT BYTES: frames of that size, at least 43 bytes, to a running VM
   local socket i
   ip route replace 192.0.2.2 dev "$1"
   ip neighbour replace 192.0.2.2 lladdr ff:ff:ff:ff:ff:ff dev "$1"
   exec {socket}>/dev/udp/192.0.2.2/9
   for ((i = 0; i < $2; ++i)); do
      printf '%*s' $(($3 - 42)) '' >&"$socket"
   done
   exec {socket}>&-
}

labPid() { cat "/run/libvirt/qemu/$1.pid"; } # NAME
labDomstats() { timeout $labPatience virsh domstats "$1" | sed -n "s/^ *$2=//p"; } # NAME FIELD

labCpuTicks() { # NAME: user and system time of the VM's QEMU, in clock ticks
   local fields
   fields=$(<"/proc/$(labPid "$1")/stat")
   read -ra fields <<<"${fields##*) }"
   echo $((fields[11] + fields[12]))
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
   set -euo pipefail
   labPossible || exit 77
   labEnter "$@"
   scratch=$(mktemp -d)
   trap 'labDown; rm -rf "$scratch"' EXIT
   labUp "$scratch"
   "${@:-bash}"
fi
