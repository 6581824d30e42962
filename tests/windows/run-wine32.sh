#!/usr/bin/env bash
# Runs PROGRAM.exe [ARGUMENT...] on the unpacked 32-bit Wine and exits with its exit code. The prefix (WINEPREFIX,
# default ~/.wine32) is made on first use.
root=@ROOT@
export LD_LIBRARY_PATH=$root/usr/lib/i386-linux-gnu:$root/lib/i386-linux-gnu
export WINEDLLPATH=$root/usr/lib/i386-linux-gnu/wine
export WINELOADER=$root/usr/lib/wine/wine WINESERVER=$root/usr/lib/wine/wineserver32
export WINEPREFIX=${WINEPREFIX:-$HOME/.wine32} WINEARCH=win32 WINEDEBUG=${WINEDEBUG--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES-mscoree,mshtml,winemenubuilder.exe=}
# The server serves everybody's programs, so its socket must not lie in a folder of whoever happens to start it.
export TMPDIR=/tmp

# The server and Wine's services are started here with closed output: started by a test they would hold the pipe of
# ctest open long after the test has ended.
mkdir -p "$(dirname "$WINEPREFIX")"
exec 9>"$WINEPREFIX.lock"
flock 9
{
    if [ ! -e "$WINEPREFIX/.ready" ]; then
        "$WINELOADER" wineboot -i
        # Top-level windows without a display.
        "$WINELOADER" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f
        # A crash ends the program at once with its code, instead of opening a dialog nobody sees.
        "$WINELOADER" reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /d none.exe /f
        "$WINELOADER" reg add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 /f
        "$WINESERVER" -k -w
        touch "$WINEPREFIX/.ready"
    fi
    if "$WINESERVER" -p"${WINE_LINGER:-60}"; then "$WINELOADER" wineboot; fi
} </dev/null >/dev/null 2>&1 9>&-
exec 9>&-

# A program that needs a desktop has Wine start one, which inherits its error output and outlives it by seconds, or as
# long as other programs need it: whoever reads that output to its end, as ctest does, would wait as long. So errors go
# through a file without a name, and are shown when the program has ended.
errors=$(mktemp)
exec 7<"$errors" 8>"$errors"
rm "$errors"
trap 'cat <&7 >&2' EXIT
trap 'exit 143' TERM
setpriv --pdeathsig KILL "$WINELOADER" "$@" 2>&8 7<&- 8>&-
