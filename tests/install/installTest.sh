#!/usr/bin/env bash
# The installed gateway as a panel module's developer gets it, checked and used by the consumer
# program (tests/install/consumer) with nothing but the installed files:
#
#   installTest.sh install BUILD_DIR LIBDIR WORK_DIR cmake|pkg-config [CMAKE_ARGS...]
#       `cmake --install` into a fresh prefix; the consumer finds it through the CMake package or
#       through pkg-config.
#   installTest.sh packages BUILD_DIR LIBDIR WORK_DIR [CMAKE_ARGS...]
#       `cpack`: each Debian package holds its part and names its dependencies; the packages
#       unpacked together build the consumer both ways.
#
# LIBDIR is the build's CMAKE_INSTALL_LIBDIR. CMAKE_ARGS configure the consumer like the build
# (compiler, toolchain, instrumentation); a cross build runs it through CONSUMER_EMULATOR.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
readelf=${READELF:-readelf}

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

# The headers, the CMake package, the pkg-config file and both libraries with their soname links.
check_tree()
{
    local prefix=$1 libdir=$2
    local include=$prefix/include/elementGateway header
    for header in elementGateway.h api/gatewayTypes.h api/gatewayApi.h \
        composite/gatewayComposite.h identity/gatewayIdentity.h panelsim/panelsim.h \
        $(cd "$source" && echo host/*.h); do
        [[ -f "$include/$header" ]] || fail "header $header not installed"
    done
    local file
    for file in cmake/elementGateway/elementGatewayConfig.cmake \
        cmake/elementGateway/elementGatewayConfigVersion.cmake \
        cmake/elementGateway/elementGatewayTargets.cmake pkgconfig/elementGateway.pc; do
        [[ -f "$prefix/$libdir/$file" ]] || fail "$libdir/$file not installed"
    done
    local library real soname
    for library in elementGateway panelsim; do
        local link=$prefix/$libdir/lib$library.so
        [[ -L "$link" && "$(readlink "$link")" == "lib$library.so.1" ]] ||
            fail "lib$library.so is not a link to lib$library.so.1"
        [[ -L "$link.1" ]] || fail "lib$library.so.1 is not a link"
        real=$(readlink "$link.1")
        [[ "$real" == lib$library.so.1.* && -f "$prefix/$libdir/$real" &&
            ! -L "$prefix/$libdir/$real" ]] ||
            fail "lib$library.so.1 points to '$real', not to the versioned library"
        soname=$("$readelf" -d "$prefix/$libdir/$real" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
        [[ "$soname" == "lib$library.so.1" ]] || fail "$real has SONAME '$soname'"
    done
    echo "installed tree complete: headers, CMake package, pkg-config file, sonames"
}

# Configures, builds and runs the consumer against the prefix, without a library path: what the
# program links must carry the libraries' location.
run_consumer()
{
    local prefix=$1 libdir=$2 variant=$3 work=$4
    shift 4
    local args=(-DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug "$@")
    [[ "$variant" == pkg-config ]] && args+=(-DEGW_CONSUMER_PKGCONFIG=ON)
    PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH='' \
        cmake -S "$here/consumer" -B "$work/consumer-$variant" -G Ninja "${args[@]}" \
        >"$work/configure-$variant.log" 2>&1 ||
        { cat "$work/configure-$variant.log"; fail "configure ($variant)"; }
    cmake --build "$work/consumer-$variant" >"$work/build-$variant.log" 2>&1 ||
        { cat "$work/build-$variant.log"; fail "build ($variant)"; }
    local -a emulator=()
    read -r -a emulator <<<"${CONSUMER_EMULATOR:-}"
    "${emulator[@]}" "$work/consumer-$variant/gatewayConsumer" ||
        fail "the consumer ($variant) failed"
}

# The package's file (WORK_DIR/packages/NAME_*.deb); its paths without the leading "./".
package_file()
{
    local found=("$work"/packages/"$1"_*.deb)
    [[ -f "${found[0]}" ]] || fail "no package $1"
    echo "${found[0]}"
}

package_paths()
{
    dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./||'
}

# Fails unless each pattern (an extended regular expression over a path) matches a path of the
# package, and each pattern after "--" matches none.
expect_paths()
{
    local deb=$1 paths pattern absent=false
    shift
    paths=$(package_paths "$deb")
    for pattern in "$@"; do
        if [[ "$pattern" == -- ]]; then
            absent=true
        elif $absent && grep -qE "^$pattern\$" <<<"$paths"; then
            fail "$(basename "$deb") holds $pattern"
        elif ! $absent && ! grep -qE "^$pattern\$" <<<"$paths"; then
            fail "$(basename "$deb") lacks $pattern"
        fi
    done
}

expect_depends()
{
    local deb=$1 expected=$2
    [[ "$(dpkg-deb -f "$deb" Depends)" == *"$expected"* ]] ||
        fail "$(basename "$deb") does not depend on $expected: $(dpkg-deb -f "$deb" Depends)"
}

check_packages()
{
    local usr_lib=usr/$libdir major=1
    local runtime development simulator
    runtime=$(package_file libelementgateway$major)
    development=$(package_file libelementgateway-dev)
    simulator=$(package_file elementgateway-panelsim)
    expect_paths "$runtime" "$usr_lib/libelementGateway\.so\.$major" \
        "$usr_lib/libelementGateway\.so\.$major\..*" -- "$usr_lib/libelementGateway\.so" \
        "usr/include/.*" "usr/share/.*" ".*libpanelsim.*"
    expect_paths "$development" "$usr_lib/libelementGateway\.so" "$usr_lib/libpanelsim\.so" \
        "usr/include/elementGateway/elementGateway\.h" \
        "usr/include/elementGateway/panelsim/panelsim\.h" \
        "usr/include/elementGateway/host/elementServer\.h" \
        "$usr_lib/cmake/elementGateway/elementGatewayConfig\.cmake" \
        "$usr_lib/pkgconfig/elementGateway\.pc" -- "$usr_lib/lib.*\.so\.$major.*"
    expect_paths "$simulator" "$usr_lib/libpanelsim\.so\.$major" \
        "$usr_lib/libpanelsim\.so\.$major\..*" \
        "usr/bin/egw" -- "$usr_lib/libelementGateway.*" "usr/include/.*"
    expect_depends "$development" "libelementgateway$major (= "
    expect_depends "$runtime" "elementgateway-panelsim (= "
    echo "packages hold their parts:" "${runtime##*/}" "${development##*/}" "${simulator##*/}"
    local deb
    for deb in "$runtime" "$development" "$simulator"; do
        dpkg-deb -x "$deb" "$work/root"
    done
}

mode=$1 build=$2 libdir=$3 work=$4
shift 4
rm -rf "$work"
mkdir -p "$work"
case "$mode" in
    install)
        variant=$1
        shift
        cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
        check_tree "$work/prefix" "$libdir"
        run_consumer "$work/prefix" "$libdir" "$variant" "$work" "$@"
        ;;
    packages)
        cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 ||
            { cat "$work/cpack.log"; fail "cpack"; }
        check_packages
        check_tree "$work/root/usr" "$libdir"
        run_consumer "$work/root/usr" "$libdir" cmake "$work" "$@"
        run_consumer "$work/root/usr" "$libdir" pkg-config "$work" "$@"
        ;;
    *) fail "unknown mode '$mode'" ;;
esac
