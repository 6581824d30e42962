#!/usr/bin/env bash
# What a connection of the echo server costs in memory, above the base provider alone and through the layer: the
# server's anonymous resident memory with 250 to 1,000 connections open, before they carry anything and after.
set -euo pipefail
programs=${1:-build/bench/bin}
machine=$(mktemp --suffix=.toml)
echo '[catalog]
layer = "default"' >"$machine"
server=
client=
end() {
    [ -z "$client" ] || kill "$client" 2>/dev/null || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
}
trap 'rm -f "$machine"' EXIT

resident() { sed -n 's/^RssAnon:[^0-9]*\([0-9]*\).*/\1/p' "/proc/$1/status"; }

# measure CONNECTIONS: prints the server's KiB without connections, with them open, and after their rounds.
measure() {
    # A subshell of its own, which ends what it has started.
    trap end EXIT
    exec 4< <(exec "$programs/qxecho" server)
    server=$!
    local address before opened after line
    read -r _ _ address <&4
    before=$(resident "$server")
    coproc CLIENT { exec "$programs/qxecho" client "$address" --connections "$1" --rounds 50 --step; }
    client=$CLIENT_PID
    local output=${CLIENT[0]} input=${CLIENT[1]}
    read -r _ <&"$output"
    opened=$(resident "$server")
    echo >&"$input"
    read -r line <&"$output"
    after=$(resident "$server")
    wait "$client" || { echo "the echo failed: $line" >&2; exit 1; }
    client=
    kill "$server"
    wait "$server" || { echo "the server failed" >&2; exit 1; }
    server=
    exec 4<&-
    echo "$before $opened $after"
}

for through in base layer; do
    for connections in 250 500 1000; do
        if [ $through = layer ]; then export QX_MACHINE=$machine; else unset QX_MACHINE; fi
        read -r before opened after < <(measure $connections)
        awk -v t=$through -v n=$connections -v b="$before" -v o="$opened" -v a="$after" 'BEGIN {
            printf "%-5s  %4d connections: %5.2f KiB each when open, %5.2f KiB after 50 echoes each\n",
                   t, n, (o - b) / n, (a - b) / n }'
    done
done
