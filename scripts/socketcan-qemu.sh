#!/usr/bin/env bash
# Runs the SocketCAN tests on a real CAN interface (vcan0) inside a small
# virtual machine booted from Debian's own kernel, for hosts whose kernel has
# no AF_CAN. The kernel package is downloaded once (not installed) and kept
# in $XDG_CACHE_HOME/tessitor/qemu; each run builds an initramfs with
# busybox, the CAN modules, the test program and the tessitor binary with
# their libraries, boots it under qemu (TCG: no KVM needed) and reads the
# test program's exit status from the console.
#
# Usage: socketcan-qemu.sh TEST_PROGRAM TESSITOR_BINARY [GTEST_ARGS...]
#        socketcan-qemu.sh --fetch        # only download the kernel package
# Exit status: the test program's; 77 when the tier cannot run here (qemu,
# busybox-static or the kernel package missing: scripts/bootstrap.sh
# installs them); 1 when the machine did not report a result in time.
set -euo pipefail

CACHE=${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/tessitor/qemu
BOOT_TIMEOUT=${TESSITOR_QEMU_TIMEOUT:-300}
skip() { echo "SKIPPED: SocketCAN tier in qemu: $*"; exit 77; }

kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}'
}

fetch_kernel() {
    mkdir -p "$CACHE"
    if ls "$CACHE"/linux-image-*.deb >/dev/null 2>&1; then return 0; fi
    local package
    package=$(kernel_package)
    [ -n "$package" ] || return 1
    (cd "$CACHE" && apt-get download -qq "$package" >/dev/null 2>&1) || return 1
}

if [ "${1:-}" = "--fetch" ]; then
    fetch_kernel || { echo "socketcan-qemu: cannot download Debian's kernel package" >&2; exit 1; }
    exit 0
fi
[ $# -ge 2 ] || { echo "usage: $0 TEST_PROGRAM TESSITOR_BINARY [GTEST_ARGS...]" >&2; exit 2; }
TEST_PROGRAM=$(readlink -f "$1")
TESSITOR=$(readlink -f "$2")
shift 2

command -v qemu-system-x86_64 >/dev/null || skip "qemu-system-x86_64 is not installed (scripts/bootstrap.sh)"
[ -x /bin/busybox ] && /bin/busybox --list 2>/dev/null | grep -qx insmod || skip "busybox-static is not installed"
command -v cpio >/dev/null || skip "cpio is not installed"
fetch_kernel || skip "Debian's kernel package is not in $CACHE and cannot be downloaded"

# The kernel and the few module folders it needs, unpacked once per package.
DEB=$(ls "$CACHE"/linux-image-*.deb | tail -1)
KERNEL_DIR="$CACHE/$(basename "$DEB" .deb)"
if [ ! -f "$KERNEL_DIR/ready" ]; then
    rm -rf "$KERNEL_DIR" && mkdir -p "$KERNEL_DIR"
    dpkg-deb --fsys-tarfile "$DEB" | tar -x -C "$KERNEL_DIR" --wildcards './boot/vmlinuz-*' \
        './lib/modules/*/kernel/net/can/*' './lib/modules/*/kernel/drivers/net/can/*'
    find "$KERNEL_DIR" -name '*.ko.xz' -exec xz -d -f {} +
    touch "$KERNEL_DIR/ready"
fi
VMLINUZ=$(ls "$KERNEL_DIR"/boot/vmlinuz-* | head -1)

WORK=$(mktemp -d "${TMPDIR:-/tmp}/tessitor-qemu.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
ROOT="$WORK/root"
mkdir -p "$ROOT"/{bin,proc,sys,dev,tmp,lib/modules}
cp /bin/busybox "$ROOT/bin/busybox"
ln -s busybox "$ROOT/bin/sh"

# Modules in dependency order, read from each module's "depends=".
declare -A MODPATH SEEN
ORDER=()
while read -r path; do name=$(basename "$path" .ko); MODPATH[${name//-/_}]=$path; done \
    < <(find "$KERNEL_DIR/lib/modules" -name '*.ko')
add_module() {
    local name=${1//-/_} dep
    [ -n "${SEEN[$name]:-}" ] && return 0
    SEEN[$name]=1
    [ -n "${MODPATH[$name]:-}" ] || return 0 # built in
    for dep in $(objcopy -O binary --only-section=.modinfo "${MODPATH[$name]}" /dev/stdout 2>/dev/null \
                 | tr '\0' '\n' | sed -n 's/^depends=//p' | tr ',' ' '); do
        add_module "$dep"
    done
    ORDER+=("$name")
}
for module in can can_raw vcan; do add_module "$module"; done
for name in "${ORDER[@]}"; do cp "${MODPATH[$name]}" "$ROOT/lib/modules/$name.ko"; echo "$name"; done > "$ROOT/modules.load"

# The two programs and the shared libraries they load, at the same paths.
cp "$TEST_PROGRAM" "$ROOT/bin/socketcan_tests"
cp "$TESSITOR" "$ROOT/bin/tessitor"
for lib in $( (ldd "$TEST_PROGRAM"; ldd "$TESSITOR") | awk '$2 == "=>" && $3 ~ /^\// {print $3} $1 ~ /^\// {print $1}' | sort -u); do
    mkdir -p "$ROOT$(dirname "$lib")"
    cp -L "$lib" "$ROOT$lib"
done

{
    echo '#!/bin/sh'
    echo '/bin/busybox --install -s /bin'
    echo 'export PATH=/bin HOME=/tmp TESSITOR_BIN=/bin/tessitor TESSITOR_VCAN=vcan0'
    echo 'mount -t proc proc /proc; mount -t sysfs sysfs /sys; mount -t devtmpfs devtmpfs /dev'
    echo 'while read m; do insmod /lib/modules/$m.ko || echo "insmod $m failed"; done < /modules.load'
    echo 'ip link add dev vcan0 type vcan && ip link set vcan0 up || echo "vcan0 could not be made"'
    printf '/bin/socketcan_tests --gtest_color=no'
    for arg in "$@"; do printf " '%s'" "$arg"; done
    echo '; rc=$?'
    echo 'echo "TESSITOR_VM_EXIT=$rc"'
    echo 'poweroff -f'
} > "$ROOT/init"
chmod +x "$ROOT/init"
(cd "$ROOT" && find . | cpio -o -H newc --quiet) | gzip -1 > "$WORK/initrd.img"

echo "socketcan-qemu: booting $(basename "$VMLINUZ") with vcan0"
# qemu exits 0 whatever happens inside: the marker line carries the result.
timeout "$BOOT_TIMEOUT" qemu-system-x86_64 -accel tcg -m 512 -smp 1 -nographic -no-reboot -nic none \
    -kernel "$VMLINUZ" -initrd "$WORK/initrd.img" -append "console=ttyS0 quiet loglevel=3 panic=-1" \
    </dev/null 2>&1 | tr -d '\r' | tee "$WORK/console.log" || true
rc=$(sed -n 's/^TESSITOR_VM_EXIT=\([0-9]*\).*/\1/p' "$WORK/console.log" | tail -1)
if [ -z "$rc" ]; then
    echo "socketcan-qemu: the machine gave no result within ${BOOT_TIMEOUT} s"
    exit 1
fi
exit "$rc"
