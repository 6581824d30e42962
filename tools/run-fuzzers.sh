#!/usr/bin/env bash
# Runs every fuzz target for QX_FUZZ_SECONDS seconds from its checked-in seeds. What it finds on the way stays in the
# build folder; an input that breaks something is printed by libFuzzer and belongs into fuzz/corpus/.
set -euo pipefail
seconds=${QX_FUZZ_SECONDS:-60}
found=0
for corpus in fuzz/corpus/*/; do
    name=$(basename "$corpus")
    mkdir -p "build/fuzz/corpus/$name"
    echo "== $name, $seconds s"
    log="build/fuzz/$name.log"
    status=0
    (cd build/fuzz && "bin/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        "corpus/$name" "../../fuzz/corpus/$name") >"$log" 2>&1 || status=$?
    grep -E 'ERROR|SUMMARY|stat::|Test unit' "$log" || true
    [ "$status" -eq 0 ] || { tail -40 "$log"; exit "$status"; }
    found=$((found + 1))
done
[ "$found" -gt 0 ] || { echo "no fuzz target was built" >&2; exit 1; }
echo "$found fuzz targets, $seconds s each, nothing found"
