#!/usr/bin/env bash
# The evidence that the gateway holds up, step by step, stopping at the first failure:
#   coverage  GCC with --coverage: the whole test suite (fault loop, stress and fuzz corpora
#             included), then line and branch coverage of api/, composite/ and identity/
#   valgrind  memcheck over every test program of that same build: no error, no leak
#   tsan      Clang with ThreadSanitizer: the sixteen-thread stress test, and every test of egwd
#             (32 clients with host faults among them)
#   fuzz      Clang with libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer: each harness
#             for a bounded time from its checked-in corpus
#   mutation  every planted bug of tests/mutation/mutants.txt must make a unit test fail
#             (scripts/mutation.sh)
#
#   scripts/evidence.sh [STEP...]      (default: all of them, in this order)
#
# EVIDENCE_FUZZ_SECONDS (default 20) bounds each harness, EVIDENCE_STRESS_MS (default 3000) the
# stress test under ThreadSanitizer. Builds go to $EGW_BUILD_ROOT/evidence-* (default build/).
set -euo pipefail
source "$(dirname "$0")/common.sh"

steps=("$@")
[[ ${#steps[@]} -gt 0 ]] || steps=(coverage valgrind tsan fuzz mutation)
fuzz_seconds=${EVIDENCE_FUZZ_SECONDS:-20}
stress_ms=${EVIDENCE_STRESS_MS:-3000}
started=$SECONDS

# gcovr and valgrind are the only tools this script needs beyond the build's.
need_packages()
{
    local missing=()
    for tool in "$@"; do
        command -v "$tool" >/dev/null || missing+=("$tool")
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    local sudo=()
    [[ $(id -u) -eq 0 ]] || sudo=(sudo)
    echo "evidence.sh: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get -qq -o DPkg::Lock::Timeout=600 update
    "${sudo[@]}" apt-get -qq -o DPkg::Lock::Timeout=600 install -y --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# Configures (once) and builds the given targets of one evidence build.
build_targets()
{
    local dir=$build_root/$1
    shift 1
    local options=() targets=()
    while [[ $# -gt 0 && $1 != -- ]]; do options+=("$1"); shift; done
    [[ $# -gt 0 ]] && shift
    targets=("$@")
    [[ -f $dir/build.ninja ]] || cmake -S "$repo" -B "$dir" -G Ninja "${options[@]}" >/dev/null
    cmake --build "$dir" -j "$jobs" ${targets[@]:+--target "${targets[@]}"}
}

coverage_dir=$build_root/evidence-coverage

coverage()
{
    need_packages gcovr
    echo "---- coverage: build and test suite"
    find "$coverage_dir" -name '*.gcda' -delete 2>/dev/null || true
    build_targets evidence-coverage -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=g++ \
        -DCMAKE_CXX_FLAGS=--coverage -DEGW_BUILD_TOOLS=ON --
    ctest --test-dir "$coverage_dir" -j "$jobs" --output-on-failure --no-tests=error -LE install
    echo "---- fault loop, all rows in one run"
    "$coverage_dir/tests/reliability/test_reliability" --gtest_filter='Exported/FaultLoop.*' \
        --gtest_brief=1 | grep -E '^fault loop|PASSED|FAILED'
    echo "---- coverage of the gateway library (api/, composite/, identity/)"
    local filters=(--root "$repo" --object-directory "$coverage_dir"
                   --exclude-directories '.*/CMakeFiles/[0-9.]+/.*' --filter "$repo/api/"
                   --filter "$repo/composite/" --filter "$repo/identity/"
                   --exclude-unreachable-branches --exclude-throw-branches)
    gcovr "${filters[@]}" --print-summary
    gcovr "${filters[@]}" --branches
}

# Every test program under memcheck. The fault loop (3,600 runs, ten minutes under valgrind) runs
# one eighth of its rows here; the sanitizer build of scripts/test.sh runs all of them.
valgrind_suite()
{
    need_packages valgrind
    [[ -d $coverage_dir ]] || build_targets evidence-coverage -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS=--coverage -DEGW_BUILD_TOOLS=ON --
    local memcheck=(valgrind --quiet --fair-sched=yes --error-exitcode=1 --leak-check=full
                    --errors-for-leak-kinds=all --show-leak-kinds=definite,indirect,possible)
    local program harness
    local filter
    for program in "$coverage_dir"/tests/test_*; do
        [[ -f $program && -x $program ]] || continue
        # The service's load and abandoned-connection tests count threads and wait for bounded
        # times; they run under the sanitizers, here only its request and event tests.
        filter='*'
        [[ ${program##*/} == test_service ]] && filter='RequestChecks*:SessionEvents*'
        echo "---- valgrind: ${program##*/} ($filter)"
        "${memcheck[@]}" "$program" --gtest_brief=1 --gtest_filter="$filter" |
            grep -E 'PASSED|FAILED'
    done
    program=$coverage_dir/tests/reliability/test_reliability
    echo "---- valgrind: test_reliability, stress test"
    EGW_STRESS_MS=3000 "${memcheck[@]}" "$program" --gtest_brief=1 --gtest_filter='StressTest.*' |
        grep -E 'stress:|PASSED|FAILED'
    echo "---- valgrind: test_reliability, fault loop rows 1, 9, 17, ..."
    GTEST_TOTAL_SHARDS=8 GTEST_SHARD_INDEX=0 "${memcheck[@]}" "$program" --gtest_brief=1 \
        --gtest_filter='Exported/FaultLoop.*' | grep -E 'fault loop|PASSED|FAILED'
    for program in "$coverage_dir"/fuzz/fuzz_*; do
        harness=${program##*/fuzz_}
        echo "---- valgrind: fuzz corpus $harness"
        "${memcheck[@]}" "$program" "$repo/fuzz/corpus/$harness"
    done
}

tsan()
{
    echo "---- tsan: stress test for $stress_ms ms"
    build_targets evidence-tsan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
        -DEGW_SANITIZE=thread -DEGW_BUILD_TOOLS=ON -- test_reliability test_service
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
    EGW_STRESS_MS=$stress_ms "$build_root/evidence-tsan/tests/reliability/test_reliability" \
        --gtest_filter='StressTest.*' --gtest_brief=1
    echo "---- tsan: egwd, 32 clients with host faults for $stress_ms ms, every test of the service"
    EGW_SERVICE_STRESS_MS=$stress_ms "$build_root/evidence-tsan/tests/test_service" --gtest_brief=1
}

fuzz()
{
    local dir=$build_root/evidence-fuzz
    local harnesses=(stateRecord marshalling addressList propertyReaders typeLibrary panelConfig
                     serviceProcessor)
    build_targets evidence-fuzz -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
        -DEGW_SANITIZE=address,undefined -DEGW_FUZZ=ON -DEGW_BUILD_TOOLS=ON -- \
        "${harnesses[@]/#/fuzz_}"
    local program harness work
    for harness in "${harnesses[@]}"; do
        program=$dir/fuzz/fuzz_$harness
        echo "---- fuzz: $harness for $fuzz_seconds s"
        # New inputs go to a scratch corpus; the checked-in seeds are only read.
        work=$dir/work/$harness
        mkdir -p "$work" "$dir/artifacts"
        if ! "$program" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="$dir/artifacts/$harness-" -print_final_stats=1 \
            "$work" "$repo/fuzz/corpus/$harness" >"$dir/$harness.log" 2>&1; then
            tail -n 60 "$dir/$harness.log"
            echo "fuzz: $harness failed (artifacts in $dir/artifacts)"
            return 1
        fi
        grep -E '^stat::(number_of_executed_units|new_units_added)' "$dir/$harness.log"
    done
}

bash "$repo/scripts/setup.sh" # the compilers and libraries of every build
passed=0
for step in "${steps[@]}"; do
    case $step in
        coverage) coverage ;;
        valgrind) valgrind_suite ;;
        tsan) tsan ;;
        fuzz) fuzz ;;
        mutation) bash "$repo/scripts/mutation.sh" ;;
        *) echo "evidence.sh: unknown step '$step' (known: coverage valgrind tsan fuzz mutation)" >&2
           exit 2 ;;
    esac
    passed=$((passed + 1))
done
echo "evidence.sh: $passed passed, 0 failed ($((SECONDS - started)) s)"
