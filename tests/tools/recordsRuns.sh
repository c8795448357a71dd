#!/usr/bin/env bash
# egw audit and egw history against the records of egwd: asked of egwd (--connect) and read from
# its database file (--database), filtered and paged; the file is never written by the tool.
# Usage: recordsRuns.sh EGW EGWD
set -u
# A cross build's emulator (EMULATOR, its words) runs both programs.
read -r -a emulator <<<"${EMULATOR:-}"
egw=("${emulator[@]}" "$1")
egwd=("${emulator[@]}" "$2")
work=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -rf "$work"' EXIT
failed=0

# Started as systemd starts it: no --database, the state directory in the environment.
STATE_DIRECTORY=$work "${egwd[@]}" --port 0 >"$work/egwd.out" 2>"$work/egwd.err" &
pid=$!
for _ in $(seq 300); do
    grep -qs 'serving' "$work/egwd.out" && break
    sleep 0.1
done
port=$(sed -n 's/.* on 127\.0\.0\.1:\([0-9]*\) .*/\1/p' "$work/egwd.out")
[[ -n $port ]] || { echo "egwd did not start:"; cat "$work/egwd.err"; exit 1; }
at() { local level=$1 password=$2; shift 2; "${egw[@]}" --connect "127.0.0.1:$port" --level "$level" --password "$password" "$@" 2>&1; echo "exit $?"; }
db() { "${egw[@]}" "$@" --database "$work/egwd.db" 2>&1; echo "exit $?"; }

# The output of a run must match the extended regular expression (over all its lines; \n is a
# line break).
expect() {
    local what=$1 pattern=${2//\\n/$'\n'} output=$3
    if ! [[ $output =~ $pattern ]]; then
        echo "FAILED: $what"
        echo "$output" | sed 's/^/    /'
        failed=$((failed + 1))
    fi
}

at 3 3333 set det-1-001 AlarmThreshold 61 >/dev/null
at 2 2222 events >/dev/null

expect "the database in the state directory, for its owner only" '^600$' \
    "$(stat -c %a "$work/egwd.db")"
# A full page that is the last one says there is no more.
expect "audit from the database file, a full last page" \
    'session [0-9]+ from 127\.0\.0\.1:[0-9]+ at level 3  setInteger  element #[0-9]+ ID 01\.001  "50" -> "61"  ok\nexit 0' \
    "$(db audit --operation setInteger --limit 1)"
expect "audit asked of egwd at level 3, as JSON, a full last page" \
    '"operation": "setInteger",.*"before": "50",.*"after": "61",.*"result": "ok".*"next": null\n\}\nexit 0' \
    "$(at 3 3333 --json audit --operation setInteger --limit 1)"
expect "audit refused below level 3" 'egw: queryAudit needs access level 3[^\n]*\nexit 1' \
    "$(at 2 2222 audit)"
expect "failed logins in the audit" 'loginFailed  "1" -> -  level 3: wrong password\nexit 0' \
    "$(at 3 9999 tree >/dev/null; db audit --operation loginFailed)"

first=$(db history --limit 2)
expect "history: a page of two and where the next begins" \
    '^#[0-9]+  [0-9-]{10}T[0-9:.]{12}Z  event 0x0301[0-9A-F]{4}  element #[0-9]+ ID [0-9.]+  0x8[0-9A-F]+ [A-Za-z]+: [^\n]+\n#[0-9]+ [^\n]+\nmore: add --before [0-9]+\nexit 0' \
    "$first"
last=$(sed -n '2s/^#\([0-9]*\) .*/\1/p' <<<"$first")
expect "history: the next page begins after the last row" "more: add --before $last\\n" "$first"
expect "history: the next page starts below it" "^#$((last - 1))  " \
    "$(db history --limit 2 --before "$last")"
expect "history of one category" '^(#[^\n]*category 8\n)+(more[^\n]*\n)?exit 0' \
    "$(db history --category 8)"
expect "history of one element and those below it" \
    '^(#[^\n]*FireAlarmState[^\n]*\n)+exit 0' "$(db history --element det-1-001 --category 7)"
expect "history asked of egwd says the same" "$(db history --limit 3 | sed 's/[].[*^$()+?{}|]/\\&/g')" \
    "$(at 1 '' history --limit 3)"
expect "nothing before the first record" '^no records\nexit 0' "$(db audit --to 2000-01-01)"

expect "history needs a source" 'egw: history: give either --database FILE[^\n]*\nexit 2' \
    "$("${egw[@]}" history 2>&1; echo "exit $?")"
expect "bad time" 'egw: --from yesterday: expected a UTC time[^\n]*\nexit 2' \
    "$(db audit --from yesterday)"
expect "bad limit" 'audit: --limit: Value 0 not in range[^\n]*\nexit 2' "$(db audit --limit 0)"

# The tool only reads the file: its rows are the same before and after (egwd stopped).
kill "$pid"
wait "$pid"
before=$(sha256sum <"$work/egwd.db")
db audit --limit 1000 >/dev/null
db history --limit 1000 >/dev/null
expect "the database file is not written" "^$before\$" "$(sha256sum <"$work/egwd.db")"

echo "records runs: $failed failed"
[[ $failed -eq 0 ]]
