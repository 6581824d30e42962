#!/usr/bin/env bash
# 32-bit Wine on an amd64 Debian 12, without a second architecture in the system's package database: the packages are
# downloaded with a private package state that knows i386 only, unpacked under one folder, and the two loaders are
# pointed at their own dynamic linker there. Afterwards: $WINE32/run PROGRAM.exe [ARGUMENT...]
#
# Needs no root beyond a writable target folder. About 20 s and 730 MB, plus 590 MB for the prefix that the first run
# makes.
set -euo pipefail

root=${WINE32:-/opt/wine32}
linker=$root/ld.so
# The loaders hold the path "/lib/ld-linux.so.2"; ours must fit into its place.
[ ${#linker} -le 18 ] || { echo "$0: $linker must not be longer than 18 characters" >&2; exit 1; }

write_runner() {
    sed "s#@ROOT@#$root#" "$(dirname "$0")/run-wine32.sh" >"$root/run.new"
    chmod 755 "$root/run.new"
    mv "$root/run.new" "$root/run"
}

# It is the last thing that is written, so the rest is there.
if [ -x "$root/run" ]; then
    write_runner
    exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{lists/partial,cache/archives/partial,preferences} "$root"
: >"$work/status"

mirror=$(awk '/^URIs:/{print $2; exit}' /etc/apt/sources.list.d/debian.sources 2>/dev/null ||
    awk '/^deb /{print $2; exit}' /etc/apt/sources.list)
echo "deb [arch=i386 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror bookworm main" >"$work/sources.list"
private_apt=(apt-get -qq -y
    -o Debug::NoLocking=1 -o APT::Architecture=i386 -o APT::Architectures::=i386 -o APT::Install-Recommends=0
    -o Dir::State::status="$work/status" -o Dir::State::lists="$work/lists" -o Dir::Cache="$work/cache"
    -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=/dev/null
    -o Dir::Etc::preferences=/dev/null -o Dir::Etc::preferencesparts="$work/preferences"
    -o Acquire::Retries=5 -o Acquire::Languages=none -o APT::Sandbox::User=root)
"${private_apt[@]}" update
"${private_apt[@]}" --download-only install wine32 >"$work/log" || { tail -20 "$work/log"; exit 1; }
for package in "$work"/cache/archives/*.deb; do
    dpkg-deb -x "$package" "$root"
done

libraries=$root/usr/lib/i386-linux-gnu
[ -e "$libraries/ld-linux.so.2" ] || libraries=$root/lib/i386-linux-gnu
ln -sfn "$libraries/ld-linux.so.2" "$linker"
padding=$(printf '\\x00%.0s' $(seq $((19 - ${#linker}))))
for loader in wine wineserver32; do
    sed -i "s#/lib/ld-linux.so.2\x00#$linker$padding#" "$root/usr/lib/wine/$loader"
done
# The packaged server is a script that looks for a 64-bit one first.
ln -sfn wineserver32 "$root/usr/lib/wine/wineserver"
# user32.dll needs zlib1.dll marked as one of Wine's own, which the package does when it is installed.
zlib=$root/usr/i686-w64-mingw32/lib/zlib1.dll
if [ -e "$zlib" ]; then
    {
        head -c 64 "$zlib"
        printf 'Wine builtin DLL\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0'
        tail -c +97 "$zlib"
    } >"$root/usr/lib/i386-linux-gnu/wine/i386-windows/zlib1.dll"
fi

write_runner
