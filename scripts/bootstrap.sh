#!/usr/bin/env bash
# Installs the Debian packages Tessitor builds with. Safe to run again:
# it installs only what is missing.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libcli11-dev libedit-dev libmatio-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "bootstrap: installing ${missing[*]}" >&2
$sudo apt-get update -qq || true
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
