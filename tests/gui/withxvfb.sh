#!/usr/bin/env bash
# Runs a command under an X server of its own: Xvfb picks a free display
# itself (-displayfd), so parallel runs never race for a display number.
# Usage: withxvfb.sh COMMAND [ARGS...]
set -euo pipefail
fifo_dir=$(mktemp -d "${TMPDIR:-/tmp}/tessitor-xvfb.XXXXXX")
trap 'kill "$xvfb_pid" 2>/dev/null || true; wait "$xvfb_pid" 2>/dev/null || true; rm -rf "$fifo_dir"' EXIT
mkfifo "$fifo_dir/display"
Xvfb -displayfd 3 -screen 0 1280x900x24 -nolisten tcp -noreset 3>"$fifo_dir/display" 2>"$fifo_dir/xvfb.log" &
xvfb_pid=$!
if ! read -r -t 60 display <"$fifo_dir/display"; then
    echo "withxvfb: Xvfb did not start:" >&2
    cat "$fifo_dir/xvfb.log" >&2
    exit 1
fi
export DISPLAY=":$display"
export QT_QPA_PLATFORM=xcb
export XDG_RUNTIME_DIR="$fifo_dir"
"$@"
