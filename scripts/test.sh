#!/usr/bin/env bash
# Everything CI checks, in order, stopping at the first failure:
#   debug    GCC, Debug, warnings as errors
#   asan     Clang 14 with AddressSanitizer and UndefinedBehaviorSanitizer
#   armhf    32-bit ARM (the panel's board), legacy string ABI, under qemu-arm
#   aarch64  64-bit ARM, under qemu-aarch64
# The ARM builds first make (or find in their cache) the target's libraries for egwd from Debian's
# packages (scripts/crossDeps.sh); egwd runs under qemu-user there, its clients on this machine.
# Each is built, then runs its unit tests, the service tests (egwd), the interface check (exported symbols) and the install
# tests (installed tree, Debian packages, consumer programs).
#
#   scripts/test.sh [CONFIGURATION...]     (default: all of them, in this order)
set -euo pipefail
source "$(dirname "$0")/common.sh"

configurations=("$@")
[[ ${#configurations[@]} -gt 0 ]] || configurations=(debug asan armhf aarch64)
for configuration in "${configurations[@]}"; do
    [[ "$configuration" =~ ^(debug|asan|armhf|aarch64)$ ]] ||
        { echo "test.sh: unknown configuration '$configuration'" >&2; exit 2; }
done

summary=()
passed=0
failed=0
started=$SECONDS
log_dir=$build_root/logs
mkdir -p "$log_dir"

finish()
{
    echo
    echo "==== Summary ($((SECONDS - started)) s)"
    printf '%s\n' "${summary[@]}"
    echo "test.sh: $passed passed, $failed failed"
}

log_of()
{
    echo "$log_dir/${1//[: ]/_}.log"
}

# Runs one step with its output in a log; on failure shows the log's end and stops everything.
step()
{
    local name=$1
    shift
    local log begin=$SECONDS
    log=$(log_of "$name")
    echo "---- $name"
    if "$@" >"$log" 2>&1; then
        summary+=("  ok    $name ($((SECONDS - begin)) s)")
        return 0
    fi
    # ctest's lines of started and passed tests would push the failures out of sight.
    grep -vE '^ *(Start +[0-9]+: |[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed)' "$log" | tail -n 200
    summary+=("  FAIL  $name ($((SECONDS - begin)) s), log: $log")
    count_tests "$log"
    finish
    exit 1
}

# Adds up ctest's closing line ("95% tests passed, 2 tests failed out of 40") of a log.
count_tests()
{
    local line total bad
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -n 1) || return 0
    bad=$(sed -E 's/.* ([0-9]+) tests? failed.*/\1/' <<<"$line")
    total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
}

# One ctest run over the tests with (-L) or without (-LE) the labels.
tests()
{
    local name=$1 preset=$2
    shift 2
    step "$name" ctest --test-dir "$build_root/$preset" -j "$jobs" --output-on-failure \
        --no-tests=error "$@"
    count_tests "$(log_of "$name")"
    grep -E 'tests passed, [0-9]+ tests? failed out of' "$(log_of "$name")" | tail -n 1
}

# Configure, build and every test of one configuration, the test groups reported one by one.
check()
{
    local preset=$1
    echo
    case "$preset" in
        debug) echo "==== debug: GCC 12, Debug, warnings as errors" ;;
        asan) echo "==== asan: Clang 14, AddressSanitizer and UndefinedBehaviorSanitizer" ;;
        armhf) echo "==== armhf: 32-bit ARM hard float, legacy string ABI, tests under qemu-arm" ;;
        aarch64) echo "==== aarch64: 64-bit ARM, tests under qemu-aarch64" ;;
    esac
    if [[ $preset == armhf || $preset == aarch64 ]]; then
        # Built once per version set and cached; a warm run only looks the versions up.
        step "$preset: target libraries" target_root "$preset"
    fi
    step "$preset: configure" configure "$preset"
    step "$preset: build" build "$preset"
    tests "$preset: unit tests" "$preset" -LE 'abi|install|service'
    # egwd as a process with its clients (on ARM: egwd under qemu-user, the clients here).
    tests "$preset: service tests" "$preset" -L service
    tests "$preset: interface check" "$preset" -L abi
    tests "$preset: install, packages, consumers" "$preset" -L install
}

step "setup" bash "$repo/scripts/setup.sh" cross
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
for configuration in "${configurations[@]}"; do
    check "$configuration"
done
finish
