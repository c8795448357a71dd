#!/usr/bin/env bash
# The main job: installs what is missing, builds the Release configuration, starts the panel
# service egwd on the sample panel on a free loopback port and runs the demo through it as a
# remote client: `egw --connect` logs in at level 2, raises a fire alarm on a detector, receives
# the event with its ID string and detail record, silences the sounder and puts the panel back to
# normal. Then egwd is stopped.
#
#   scripts/demo.sh [--keep] [--page]
#     --keep: leave egwd serving until interrupted (Ctrl-C)
#     --page: also serve the operator page (egwd --http-port) and leave it open for a browser
set -euo pipefail
source "$(dirname "$0")/common.sh"

keep=false
page=()
for argument in "$@"; do
    case "$argument" in
        --keep) keep=true ;;
        --page) keep=true; page=(--http-port 0) ;;
        *) echo "demo.sh: unknown option '$argument' (known: --keep, --page)" >&2; exit 2 ;;
    esac
done

bash "$repo/scripts/setup.sh"
log=$build_root/demo-build.log
mkdir -p "$build_root"
if ! { configure release && build release; } >"$log" 2>&1; then
    cat "$log"
    echo "demo.sh: the Release build failed (log: $log)" >&2
    exit 1
fi
tool=$build_root/release/tools/egw
service=$build_root/release/service/egwd

work=$(mktemp -d)
server=
stop_service()
{
    if [[ -n $server ]]; then
        kill -TERM "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
        server=
    fi
    rm -rf "$work"
}
trap stop_service EXIT
trap 'exit 130' INT TERM

"$service" --port 0 --database "$work/egwd.db" "${page[@]}" >"$work/egwd.out" 2>"$work/egwd.err" &
server=$!
for _ in $(seq 100); do
    grep -q 'serving' "$work/egwd.out" 2>/dev/null && break
    kill -0 "$server" 2>/dev/null || break
    sleep 0.1
done
address=$(sed -n 's/.* on \(127\.0\.0\.1:[0-9]*\) .*/\1/p' "$work/egwd.out")
if [[ -z $address ]]; then
    cat "$work/egwd.err" >&2
    echo "demo.sh: egwd did not start" >&2
    exit 1
fi
cat "$work/egwd.out"
echo "demo.sh: egw --connect $address --level 2 demo"
echo
EGW_PASSWORD=2222 "$tool" --connect "$address" --level 2 demo

if $keep; then
    echo
    echo "demo.sh: egwd serves the sample panel at $address until interrupted (Ctrl-C)"
    page_address=$(sed -n 's/.*operator page on \(http[^ ]*\)/\1/p' "$work/egwd.out")
    [[ -n $page_address ]] && echo "demo.sh: the operator page: $page_address (level 2 password 2222)"
    wait "$server"
fi
