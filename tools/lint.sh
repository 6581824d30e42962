#!/usr/bin/env bash
# What machines can check of docs/style.md and docs/architecture.md: formatting, the arrows between folders, the order
# of locks, the size of files, the shell scripts, clang-tidy over the library (with the size of functions), and the
# stand-in's name list: a Windows function that the library calls and platform/README.md does not list is an error, so
# that the stand-in's contract stays written down.
set -euo pipefail
library="base protocols messages identity provider relay qxlsp"
longest_file=400
status=0

echo "== clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror || status=1

echo "== includes"
tools/check-includes || status=1

echo "== locks"
tools/check-locks || status=1

echo "== file sizes"
for file in $(git ls-files $(printf '%s/*.cpp %s/*.h ' $(for folder in $library; do echo "$folder" "$folder"; done))); do
    lines=$(wc -l <"$file")
    [ "$lines" -le "$longest_file" ] || { echo "$file has $lines lines, more than $longest_file"; status=1; }
done

echo "== scripts"
for script in qx .ci/run $(git ls-files '*.sh'); do
    bash -n "$script" || status=1
done

echo "== names"
# The lists write NameA/W and Name(Ex) for two names each.
listed=$(sed -E 's/\b([A-Za-z]+)A\/W\b/\1A \1W/g; s/\b([A-Za-z]+)\(Ex\)/\1 \1Ex/g' platform/README.md platform/winsock/README.md)
for name in $(git grep -ohE '\b(WSA|WSC|WPU|Reg|Cert|Crypt|Heap|Tls|Create|Open|Close|Get|Set|Wait|Post|Queue|Release|Reset|Load|Free|Expand|Enum|SendMessageTimeout)[A-Za-z]*(A|W|Ex)?\(' -- $library |
    tr -d '(' | sort -u); do
    # Only names that Windows itself declares count; our own functions share the prefixes.
    grep -rqswE "$name" platform/include || continue
    grep -qw "$name" <<<"$listed" || { echo "platform/README.md does not list $name"; status=1; }
done

echo "== clang-tidy"
cmake --preset clang >/dev/null
git ls-files $(printf '%s/*.cpp ' $library) | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/clang 2>/dev/null || status=1
exit $status
