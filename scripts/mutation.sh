#!/usr/bin/env bash
# Mutation check of the unit tests: every planted bug of the list (tests/mutation/mutants.txt) is
# applied, one at a time, to a copy of the sources; the gateway library and the unit test programs
# are rebuilt and run, stopping at the first failing test. A bug that no test catches fails the
# check. The repository itself is never changed.
#
#   scripts/mutation.sh [LIST]
#
# The copy and its build are in $EGW_BUILD_ROOT/mutation (default build/mutation).
set -euo pipefail
source "$(dirname "$0")/common.sh"

list=${1:-$repo/tests/mutation/mutants.txt}
dir=$build_root/mutation
src=$dir/src
build=$dir/build
programs=(test_api test_composite test_identity test_reliability)
started=$SECONDS

# Prints the number of mutants of the list, or, given an index, applies that mutant to the copy
# and prints its file and its description on two lines. A text that is not found exactly once is
# an error of the list.
mutant()
{
    python3 - "$list" "$src" "$@" <<'EOF'
import sys

path, src = sys.argv[1], sys.argv[2]
blocks, block = [], []
for line in open(path, encoding="utf-8").read().split("\n") + [""]:
    if line.strip():
        block.append(line)
    elif block:
        if not all(l.startswith("#") for l in block):
            blocks.append(block)
        block = []
if len(sys.argv) == 3:
    print(len(blocks))
    sys.exit(0)
block = blocks[int(sys.argv[3])]
what = block[0].lstrip("# ")
name = block[1]
pairs = block[2:]
if not block[0].startswith("#") or len(pairs) == 0 or len(pairs) % 2:
    sys.exit(f"mutation.sh: malformed block: {block}")
text = open(f"{src}/{name}", encoding="utf-8").read()
for old, new in zip(pairs[0::2], pairs[1::2]):
    if not (old.startswith("- ") and new.startswith("+ ")):
        sys.exit(f"mutation.sh: expected '- ' then '+ ' lines in: {what}")
    old, new = (s[2:].replace("\\n", "\n") for s in (old, new))
    if text.count(old) != 1:
        sys.exit(f"mutation.sh: '{old}' found {text.count(old)} times in {name} ({what})")
    text = text.replace(old, new)
open(f"{src}/{name}", "w", encoding="utf-8").write(text)
print(name)
print(what)
EOF
}

# The copy is brought up to date file by file: a file that differs (a change since the last run,
# or a mutant an interrupted run left behind) is copied with a new modification time, so the build
# sees it; an unchanged file is left alone and not rebuilt.
stage=$dir/stage
rm -rf "$stage"
mkdir -p "$stage" "$src"
tar -C "$repo" --exclude=./build --exclude=./.git -cf - . | tar -C "$stage" -xf -
(cd "$stage" && find . -type f) | while read -r file; do
    if ! cmp -s "$stage/$file" "$src/$file"; then
        mkdir -p "$(dirname "$src/$file")"
        cp "$stage/$file" "$src/$file"
    fi
done
export CCACHE_BASEDIR=$src
if [[ ! -f $build/build.ninja ]]; then
    # Test programs are not relinked when only the library changed.
    cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=g++ \
        -DEGW_BUILD_TOOLS=OFF -DEGW_BUILD_SERVICE=OFF \
        -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >/dev/null
fi

build_programs()
{
    cmake --build "$build" -j "$jobs" --target "${programs[@]}" >"$dir/build.log" 2>&1
}

program_path()
{
    if [[ $1 == test_reliability ]]; then
        echo "$build/tests/reliability/$1"
    else
        echo "$build/tests/$1"
    fi
}

# Runs the programs, the one of the mutated folder first; prints the first that fails.
first_failing()
{
    local folder=${1%%/*} program
    local order=("test_$folder")
    for program in "${programs[@]}"; do
        [[ $program == "test_$folder" ]] || order+=("$program")
    done
    for program in "${order[@]}"; do
        if ! timeout 120 "$(program_path "$program")" --gtest_fail_fast --gtest_brief=1 \
            >"$dir/test.log" 2>&1; then
            echo "$program"
            return 0
        fi
    done
    return 1
}

echo "---- mutation: the unchanged tree"
build_programs || { tail -n 40 "$dir/build.log"; exit 1; }
if failing=$(first_failing api); then
    echo "mutation: $failing fails on the unchanged tree"
    tail -n 40 "$dir/test.log"
    exit 1
fi

count=$(mutant)
caught=0
problems=()
echo "---- mutation: $count mutants"
for ((i = 0; i < count; ++i)); do
    applied=$(mutant "$i") || { problems+=("mutant $((i + 1)) does not apply"); continue; }
    file=$(sed -n 1p <<<"$applied")
    what=$(sed -n 2p <<<"$applied")
    if ! build_programs; then
        problems+=("mutant $((i + 1)) does not build: $file: $what")
        printf '  %2d  does not build   %s: %s\n' $((i + 1)) "$file" "$what"
    elif failing=$(first_failing "$file"); then
        caught=$((caught + 1))
        printf '  %2d  caught by %-17s %s: %s\n' $((i + 1)) "$failing" "$file" "$what"
    else
        problems+=("mutant $((i + 1)) survived: $file: $what")
        printf '  %2d  SURVIVED            %s: %s\n' $((i + 1)) "$file" "$what"
    fi
    # A fresh copy (new modification time) makes the next build recompile the file.
    cp "$repo/$file" "$src/$file"
done

echo "mutation: $count mutants, $caught caught, $((count - caught)) not caught ($((SECONDS - started)) s)"
if [[ ${#problems[@]} -gt 0 ]]; then
    printf '%s\n' "${problems[@]}"
    exit 1
fi
