#!/usr/bin/env bash
# egw against a panel in its own process and against egwd serving the same panel must say the same,
# byte for byte: one scripted scenario is run both ways and compared.
#   remoteEquivalence.sh EGW EGWD
set -euo pipefail
# A cross build's emulator (EMULATOR, its words) runs both programs.
read -r -a emulator <<<"${EMULATOR:-}"
egw=("${emulator[@]}" "$1")
egwd=("${emulator[@]}" "$2")
work=$(mktemp -d)
server=
cleanup()
{
    [[ -n $server ]] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

"${egwd[@]}" --port 0 --database :memory: >"$work/egwd.out" 2>"$work/egwd.err" &
server=$!
for _ in $(seq 300); do
    grep -q 'serving' "$work/egwd.out" && break
    sleep 0.1
done
port=$(sed -n 's/.* on 127\.0\.0\.1:\([0-9]*\) .*/\1/p' "$work/egwd.out")
[[ -n $port ]] || { echo "egwd did not start:"; cat "$work/egwd.err"; exit 1; }
remote=(--connect "127.0.0.1:$port" --level 3 --password 3333)

# Reads first; each write is read back by its own command only, and a state that a later step
# changes again is put back, since every local run starts from the panel file while the remote
# panel keeps what was written.
scenario=(
    "tree" "--json tree" "show det-1-001" "show base-sounder-1-001" "--json show repeater-1"
    "get det-1-001 AlarmThreshold" "--json get repeater-1 DeviceId" "get det-1-001 LastServiceDate"
    "get det-1-001 NoSuchProperty" "get no-such-element Address" "get det-1-001 BuzzerEnabled"
    "state det-1-001 FireAlarmState" "set det-1-001 AlarmThreshold 60"
    "set det-1-001 AlarmThreshold 300"
    "set repeater-1 Label \"Repeater, lobby\"" "set repeater-1 Label \"Repeater panel, security desk\""
    "state det-1-002 FaultState FaultOpenCircuit"
    "state det-1-002 FaultState Normal"
    "command det-1-001 0x14001" "command det-1-001 0x14004" "events" "--json events" "demo"
)
failed=0
for step in "${scenario[@]}"; do
    eval "words=($step)"
    set +e
    "${egw[@]}" "${words[@]}" >"$work/local" 2>&1
    local_status=$?
    "${egw[@]}" "${remote[@]}" "${words[@]}" >"$work/remote" 2>&1
    remote_status=$?
    set -e
    if [[ $local_status -ne $remote_status ]] || ! cmp -s "$work/local" "$work/remote"; then
        echo "DIFFERENT: egw $step (exit $local_status here, $remote_status through egwd)"
        diff "$work/local" "$work/remote" | head -20 || true
        failed=$((failed + 1))
    else
        echo "same: egw $step (exit $local_status, $(wc -c <"$work/local") bytes)"
    fi
done
# A reader that has gone (egw tree | head) ends the run quietly, as a closed pipe ends a program.
for way in "" "${remote[*]}"; do
    { sleep 0.2; "${egw[@]}" $way tree 2>"$work/stderr" && echo 0 >"$work/status" ||
        echo $? >"$work/status"; } | true
    if [[ $(cat "$work/status") != 141 || -s $work/stderr ]]; then
        echo "DIFFERENT: egw $way tree into a closed pipe: exit $(cat "$work/status"), $(cat "$work/stderr")"
        failed=$((failed + 1))
    fi
done
kill -TERM "$server"
wait "$server" && status=0 || status=$?
server=
[[ $status -eq 0 ]] || { echo "egwd exited $status"; failed=$((failed + 1)); }
if grep -E 'precondition|Assertion' "$work/egwd.err"; then failed=$((failed + 1)); fi
echo "$((${#scenario[@]} - failed)) passed, $failed failed"
[[ $failed -eq 0 ]]
