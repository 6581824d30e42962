#!/usr/bin/env bash
# Sets up the 32-bit Wine, builds for Windows, and natively what plays the end-to-end cases with Windows programs, checks
# the DLL, runs the tests there, and says which of the native tests have no part in it, and why. Arguments go to ctest. QX_WINDOWS_BUILD and QX_NATIVE_BUILD name other build folders.
set -euo pipefail
windows=${QX_WINDOWS_BUILD:-build/windows}
native=${QX_NATIVE_BUILD:-build/native}

tests/windows/get-wine32.sh
if [ -z "${QX_NATIVE_BUILD:-}" ]; then
    cmake --preset native >/dev/null
    cmake --build --preset native --target e2e_test web_client_test
fi
if [ -z "${QX_WINDOWS_BUILD:-}" ]; then
    cmake --preset windows -D QX_NATIVE_BUILD="$(realpath "$native")" >/dev/null
    cmake --build --preset windows
fi
tools/check-dll.sh "$windows/bin/qxlsp.dll"
# The first run makes the prefix and starts the services; no test should be charged with that.
"${WINE32:-/opt/wine32}/run" cmd /c exit 0 >/dev/null 2>&1

# The list's patterns as one expression for ctest.
left_out=$(sed -e '/^#/d' -e '/^$/d' -e 's/\t.*//' tests/windows/left-out.txt | paste -sd '|')
status=0
ctest --test-dir "$windows" --output-on-failure -j "$(nproc)" --no-tests=error -E "^($left_out)" "$@" || status=$?

names() {
    ctest --test-dir "$1" -N | sed -n -e 's/^ *Test *#[0-9]*: //p' | sed -e 's/ *# GetParam.*//' | sort -u
}
names "$windows" >"$windows/test-names"
echo
echo "tests under Wine: $(grep -cvE "^($left_out)" "$windows/test-names")"
names "$native" >"$native/test-names"
if grep -q '_NOT_BUILT$' "$native/test-names"; then
    echo "tests native: not all built, so nothing can be compared"
    exit $status
fi
missing=$(comm -23 "$native/test-names" <(grep -vE "^($left_out)" "$windows/test-names") || true)
echo "tests native: $(wc -l <"$native/test-names"), of which not under Wine: $(grep -c . <<<"$missing")"
while IFS=$'\t' read -r pattern reason; do
    case $pattern in '#'* | '') continue ;; esac
    count=$(grep -cE "^($pattern)" <<<"$missing" || true)
    [ "$count" -eq 0 ] || printf '  %4d  %s: %s\n' "$count" "$pattern" "$reason"
done <tests/windows/left-out.txt
unexplained=$(grep -vE "^($left_out)" <<<"$missing" || true)
if [ -n "$unexplained" ]; then
    echo "not under Wine, and nobody says why:"
    sed 's/^/  /' <<<"$unexplained"
    status=1
fi
exit $status
