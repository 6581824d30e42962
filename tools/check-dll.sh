#!/usr/bin/env bash
# Checks what qxlsp.dll shows to the world: exactly two undecorated exports, imports from system DLLs only; and that its
# worker threads end in the system's code, since the library may be unloaded under their last instructions.
set -euo pipefail
dll=$1
objdump=i686-w64-mingw32-objdump

exports=$("$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | awk '/^\t\[/{print $NF}' | sort | xargs)
if [ "$exports" != "GetLspGuid WSPStartup" ]; then
    echo "$dll exports '$exports', not 'GetLspGuid WSPStartup'" >&2
    exit 1
fi

system_dlls="advapi32.dll crypt32.dll kernel32.dll msvcrt.dll mswsock.dll secur32.dll shell32.dll user32.dll ws2_32.dll"
imports=$("$objdump" -p "$dll" | awk '/DLL Name:/{print tolower($3)}' | sort)
for import in $imports; do
    case " $system_dlls " in
    *" $import "*) ;;
    *)
        echo "$dll imports $import, which is not on the list of system DLLs" >&2
        exit 1
        ;;
    esac
done
worker=$(i686-w64-mingw32-nm -C "$dll.debug" | awk '/RunWorker\(void\*\)/{print $1}')
"$objdump" -d --start-address="0x$worker" --stop-address=$((0x$worker + 64)) "$dll" |
    awk '/\tret/{returned = 1} /\tjmp +\*0x/ && !returned{jumps = 1} END{exit !jumps}' || {
    echo "$dll: RunWorker comes back from its last call" >&2
    exit 1
}
echo "$dll: $(stat -c %s "$dll") bytes, exports: $exports; imports: $(echo $imports)"
