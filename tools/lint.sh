#!/usr/bin/env bash
# Formatting, clang-tidy over the library, and the platform's name list: a Windows function that the library calls
# and platform/README.md does not list is an error, so that the stand-in's contract stays written down.
set -euo pipefail
library="base protocols messages identity provider relay qxlsp"
status=0

echo "== clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror || status=1

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
