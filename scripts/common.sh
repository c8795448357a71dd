# Shared by the scripts: where the sources and the builds are, and how a preset is built.
# Builds go to $EGW_BUILD_ROOT/<preset> (default: build/ in the repository).
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_root=${EGW_BUILD_ROOT:-$repo/build}
jobs=${EGW_JOBS:-2}

# ccache, when installed, keeps rebuilds short; paths below the repository are hashed relative to
# it so that fresh clones share the cache.
if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
    export CCACHE_BASEDIR=$repo CCACHE_NOHASHDIR=true
fi

# The ARM builds link egwd against a root of the target's libraries made from Debian's packages
# (scripts/crossDeps.sh, cached outside the repository); its path is the last line the script
# prints.
target_root()
{
    bash "$repo/scripts/crossDeps.sh" "$1" | tail -n 1
}

configure()
{
    local preset=$1
    shift
    local args=()
    if [[ $preset == armhf || $preset == aarch64 ]]; then
        local root
        root=$(target_root "$preset")
        args+=(-DEGW_TARGET_ROOT="$root")
        # A new root (new versions) invalidates every path found in the old one.
        if grep -qs '^EGW_TARGET_ROOT:' "$build_root/$preset/CMakeCache.txt" &&
            ! grep -qsx "EGW_TARGET_ROOT:PATH=$root" "$build_root/$preset/CMakeCache.txt"; then
            args+=(--fresh)
        fi
    fi
    cmake -S "$repo" --preset "$preset" -B "$build_root/$preset" "${args[@]}" "$@"
}

build()
{
    cmake --build "$build_root/$1" -j "$jobs"
}
