#!/usr/bin/env bash
# Installs the Debian packages Tessitor builds with. Safe to run again:
# it installs only what is missing. "bootstrap.sh fuzz" adds what the
# libFuzzer targets need (clang 16 and its runtimes; Debian 12's clang 14
# lacks std::source_location), which the tests do not.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libcli11-dev libedit-dev libmatio-dev
          qemu-system-x86 busybox-static cpio xz-utils # the SocketCAN tier in qemu
          qt6-base-dev qt6-svg-dev libqcustomplot-dev libqcustomplot2.1-qt6 # tessitor-gui
          xvfb xauth fonts-dejavu-core) # its tests, under an X server of their own
[ "${1:-}" = fuzz ] && packages+=(clang-16 libclang-rt-16-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -ne 0 ]; then
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "bootstrap: installing ${missing[*]}" >&2
    $sudo apt-get update -qq || true
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
# Debian's kernel for the SocketCAN tier, downloaded (not installed) once.
"$(dirname "$0")/socketcan-qemu.sh" --fetch || echo "bootstrap: no kernel package: the SocketCAN tier will skip" >&2
