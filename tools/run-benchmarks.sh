#!/usr/bin/env bash
# Runs every benchmark program pinned to CPU 0. Waking a second CPU costs more than what is measured here, so the
# figures of an unpinned run say little. Arguments go to each program (for example --benchmark_filter=connect).
set -euo pipefail
found=0
for program in build/bench/bin/*_bench; do
    echo "== $(basename "$program")"
    taskset -c 0 "$program" "$@"
    found=$((found + 1))
done
echo "== echo server, memory"
tools/echo-memory.sh build/bench/bin
echo "== threads side by side, not pinned"
build/bench/bin/provider_threads
[ "$found" -gt 0 ] || { echo "no benchmark was built" >&2; exit 1; }
