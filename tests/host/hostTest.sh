#!/usr/bin/env bash
# The agent on a host as it is installed: `hostTest.sh BUILD_DIR [PROBE]` boots Debian 12 in QEMU, with
# systemd, version 2 control groups alone and Debian's libvirt, and runs a script in it, probe.sh unless
# told otherwise. Its output and its exit status are those of the script.
#
# The host's disk image is made once for a build directory, or for METRIX_HOST_CACHE, and never changed:
# what the host writes is lost. QEMU emulates the CPUs (there is no KVM), and so does that of the host's
# own virtual machines; no verdict depends on how long that takes.
set -euo pipefail
build=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
probe=${2:-$here/probe.sh}
cache=${METRIX_HOST_CACHE:-$build/host}
bootPatience=900 # seconds: far more than a busy machine needs
programs=(bin/agentd bin/agentctl bin/qsh)

skip() { echo "skipped: $*" >&2 && exit 77; }
fail() { echo "FAILED: $*" >&2 && exit 1; }

checkPossible() {
   local program
   [ "$(id -u)" -eq 0 ] || skip "needs root"
   grep -qx 'VERSION_CODENAME=bookworm' /etc/os-release || skip "the programs are not built for Debian 12"
   for program in mmdebstrap mke2fs qemu-system-x86_64 objdump; do
      command -v $program >/dev/null || skip "$program is not installed"
   done
}

# The Debian packages of the shared libraries that the programs need.
libraryPackages() {
   local library
   objdump -p "$build"/bin/{agentd,agentctl,qsh} "$build"/lib/*.so | awk '$1 == "NEEDED" { print $2 }' | sort -u |
      while read -r library; do
         [ -e "$build/lib/$library" ] || dpkg -S "*/$library" | sed -n "s|:.*-linux-gnu/$library\$||p"
      done | sort -u
}

# Debian's archives as this machine is configured to reach them; without any, mmdebstrap has its own.
archives() {
   apt-get indextargets 'Created-By: Packages' 'Origin: Debian' --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' |
      awk '$2 ~ /^bookworm(-security)?$/ { print "deb", $0 }' | sort -u
}

# Runs in the new root, as its last step.
finishRoot() { # ROOT
   cat >"$1/etc/systemd/system/probe.service" <<'UNIT'
[Unit]
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/bin/sh -c 'mkdir /probe && tar -x -f /dev/vdb -C /probe && cd /probe && ./run; echo "status $?"'
ExecStopPost=/bin/systemctl --no-block poweroff
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS1
Environment=HOME=/root SYSTEMD_COLORS=0
UNIT
   echo host >"$1/etc/hostname"
   echo '127.0.0.1 localhost host' >"$1/etc/hosts"
   echo '/dev/vda / ext4 rw,noatime 0 0' >"$1/etc/fstab"
   chroot "$1" systemctl -q mask getty@tty1 serial-getty@ttyS0 apt-daily.timer apt-daily-upgrade.timer || return
   mkdir -p "$1/etc/systemd/system/graphical.target.wants"
   ln -s ../probe.service "$1/etc/systemd/system/graphical.target.wants/probe.service"
}

makeImage() { # DIRECTORY
   local packages root=$1/root
   packages=(systemd-sysv udev dbus kmod procps iproute2 linux-image-cloud-amd64 libvirt-daemon-system
      libvirt-clients qemu-system-x86 qemu-utils binutils $(libraryPackages))
   archives >"$1/sources.list"
   mmdebstrap --quiet --variant=minbase --include="${packages[*]}" --aptopt='Apt::Install-Recommends "false"' \
      --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
      --dpkgopt='path-exclude=/usr/share/locale/*' bookworm "$root" \
      $([ ! -s "$1/sources.list" ] || echo "$1/sources.list") >"$1/log" 2>&1 &&
      finishRoot "$root" && cp -L "$root/vmlinuz" "$root/initrd.img" "$1" && truncate -s 4G "$1/disk" &&
      mke2fs -q -F -t ext4 -E lazy_itable_init=1 -d "$root" "$1/disk" && rm -rf "$root"
}

# Sets $image to the directory of a valid image.
findImage() {
   image=$cache/image-$({ declare -f makeImage finishRoot && libraryPackages; } | md5sum | cut -c 1-12)
   [ ! -e "$image" ] || return 0
   echo "$(date +%T) making the host's disk image"
   rm -rf "$cache"/image-*
   mkdir -p "$image.new"
   if ! makeImage "$image.new"; then
      tail -n 20 "$image.new/log" >&2
      ! grep -qE 'Could not resolve|Could not connect|Temporary failure' "$image.new/log" || skip "no Debian archive"
      fail "no disk image"
   fi
   mv "$image.new" "$image"
}

# What the probe finds in its directory: the programs, the unit and the laboratory of virtual machines.
makePayload() { # FILE
   local files=$dir/files
   mkdir -p "$files"
   cp -r "$build/lib" "$here/../../packaging" "$here/../agentd/vm" "$files"
   mkdir "$files/bin"
   cp "${programs[@]/#/$build/}" "$files/bin"
   install "$probe" "$files/run"
   tar -c -f "$1" -C "$files" .
}

boot() {
   local command
   makePayload "$dir/payload"
   command=(nice qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m "${HOST_MEMORY_MB:-2048}"
      -nodefaults -display none -no-reboot -kernel "$image/vmlinuz" -initrd "$image/initrd.img"
      -append "root=/dev/vda rw console=ttyS0 quiet panic=-1 systemd.show_status=no ${HOST_KERNEL_OPTIONS:-}"
      -drive "file=$image/disk,format=raw,if=virtio,snapshot=on"
      -drive "file=$dir/payload,format=raw,if=virtio,readonly=on"
      -nic user,model=virtio-net-pci,restrict=on -serial "file:$dir/console" -serial stdio)
   TMPDIR=$dir timeout $bootPatience "${command[@]}" </dev/null | sed -u 's/\r$//' | tee "$dir/output"
   status=$(sed -n 's/^status \([0-9]*\)$/\1/p' "$dir/output")
}

checkPossible
findImage
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
echo "$(date +%T) booting"
status=
boot || true
echo "$(date +%T) powered off"
[ -n "$status" ] || { tail -n 30 "$dir/console" >&2; fail "the script did not end"; }
exit "$status"
