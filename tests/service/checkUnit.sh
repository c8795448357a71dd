#!/usr/bin/env bash
# The systemd unit of egwd, pointed at the egwd of this build, passes `systemd-analyze verify`
# without a single remark (an unknown or misspelt directive is only a remark there), and keeps its
# hardening: the exposure systemd-analyze rates must stay "OK" or better.
#   checkUnit.sh UNIT_TEMPLATE EGWD
set -euo pipefail
template=$1 egwd=$2
if ! command -v systemd-analyze >/dev/null; then
    echo "checkUnit.sh: systemd-analyze is not installed, nothing checked"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s#@EGW_UNIT_BINDIR@#$(dirname "$egwd")#" "$template" >"$work/egwd.service"
remarks=$(systemd-analyze verify "$work/egwd.service" 2>&1) || { echo "$remarks"; exit 1; }
if [[ -n "$remarks" ]]; then
    echo "$remarks"
    exit 1
fi
rating=$(systemd-analyze security --offline=yes "$work/egwd.service" 2>&1 | tail -n 1)
echo "$rating"
[[ "$rating" =~ Overall\ exposure\ level\ for\ egwd.service:\ [0-9.]+\ (OK|SAFE) ]]
