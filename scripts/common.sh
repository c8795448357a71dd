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

configure()
{
    local preset=$1
    shift
    cmake -S "$repo" --preset "$preset" -B "$build_root/$preset" "$@"
}

build()
{
    cmake --build "$build_root/$1" -j "$jobs"
}
