#!/bin/sh
# One whole run under memcheck: no memory error, no leak, and no descriptor
# of the device still open when the process ends.
#
# Usage: ValgrindRun.sh MEROVANE SIMUART_LIBRARY
set -eu
merovane=$1
preload=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
head -c 1000 /dev/urandom >"$dir/input.bin"

status=0
LD_PRELOAD=$preload valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
    --error-exitcode=99 --track-fds=yes --log-file="$dir/valgrind.txt" \
    "$merovane" -l -f "$dir/input.bin" >"$dir/out.txt" 2>"$dir/err.txt" || status=$?
cat "$dir/valgrind.txt" "$dir/err.txt"

if [ "$status" -ne 0 ]; then
    echo "exit status $status"
    exit 1
fi
if [ "$(tail -n 1 "$dir/out.txt")" != "Done." ]; then
    echo "the run did not finish"
    exit 1
fi
# The simulated line's own master side (/dev/ptmx) stays open by design; the
# tool's descriptors on the device are its slave side.
if grep -q 'Open file descriptor .*: /dev/pts/' "$dir/valgrind.txt"; then
    echo "a descriptor of the device was left open"
    exit 1
fi
echo "memcheck clean, no device descriptor left open"
