#!/usr/bin/env bash
# The main job: installs what is missing, builds the Release configuration and runs `egw demo`,
# which builds a sample panel in the simulator and shows the gateway's answers about it.
set -euo pipefail
source "$(dirname "$0")/common.sh"

bash "$repo/scripts/setup.sh"
log=$build_root/demo-build.log
mkdir -p "$build_root"
if ! { configure release && build release; } >"$log" 2>&1; then
    cat "$log"
    echo "demo.sh: the Release build failed (log: $log)" >&2
    exit 1
fi
tool=$build_root/release/tools/egw
if [[ ! -x "$tool" ]]; then
    echo "demo.sh: the panel tool (tools/, target egw) is not part of this tree yet" >&2
    exit 1
fi
exec "$tool" demo "$@"
