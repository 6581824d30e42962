#!/usr/bin/env bash
# The demo with Windows programs as its applications: unmodified 32-bit programs, run by Wine with their sockets led
# into the DLL that ships. The servers and the analyzer stay native. Arguments go to the demo.
set -euo pipefail
wine=${WINE32:-/opt/wine32}/run

tests/windows/get-wine32.sh
cmake --preset native >/dev/null
cmake --build --preset native --target qxdemo
cmake --preset windows >/dev/null
cmake --build --preset windows --target qxhttp qxwindow qxlaunch qxhost qxlower qxlsp
# The first run makes the prefix and starts the services; the demo's times should not show that.
"$wine" cmd /c exit 0 >/dev/null 2>&1
exec build/native/bin/qxdemo --windows-programs build/windows/bin --wine "$wine" "$@"
