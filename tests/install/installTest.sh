#!/usr/bin/env bash
# The installed gateway as a panel module's developer gets it, checked and used by the consumer
# program (tests/install/consumer) with nothing but the installed files:
#
#   installTest.sh install BUILD_DIR LIBDIR WORK_DIR cmake|pkg-config [CMAKE_ARGS...]
#       `cmake --install` into a fresh prefix; the consumer finds it through the CMake package or
#       through pkg-config.
#   installTest.sh packages BUILD_DIR LIBDIR WORK_DIR [CMAKE_ARGS...]
#       `cpack`: each Debian package holds its part; each is unpacked into a root of its own with
#       nothing but the packages it declares, every library its files load must be there or come
#       from a system package it declares, and what it ships runs there (egw; the consumer built
#       both ways against the development package).
#
# LIBDIR is the build's CMAKE_INSTALL_LIBDIR. CMAKE_ARGS configure the consumer like the build
# (compiler, toolchain, instrumentation); a cross build runs it through CONSUMER_EMULATOR.
# CONSUMER_CXX and CONSUMER_FLAGS build the consumer by hand as the README says a pkg-config user
# does; SYSTEM_LIBRARY_DIRS are where the target's C and C++ runtimes lie.
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
    if [[ "$variant" == pkg-config ]]; then
        # By hand, as a pkg-config user outside the system prefixes builds: the run path is the
        # library directory that pkg-config names.
        local -a flags
        read -r -a flags <<<"${CONSUMER_FLAGS:-}"
        export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH=''
        local cxxflags libs libpath
        cxxflags=$(pkg-config --cflags elementGateway)
        libs=$(pkg-config --libs elementGateway)
        libpath=$(pkg-config --variable=libdir elementGateway)
        # shellcheck disable=SC2086 # pkg-config's flags are words
        "${CONSUMER_CXX:-c++}" -std=c++17 "${flags[@]}" $cxxflags "$here/consumer/main.cpp" \
            -o "$work/consumer-by-hand" $libs "-Wl,-rpath,$libpath" ||
            fail "the consumer does not build by hand with pkg-config"
        env -u LD_LIBRARY_PATH "${emulator[@]}" "$work/consumer-by-hand" >/dev/null ||
            fail "the consumer built by hand with pkg-config failed"
    fi
}

# The installed tool runs from where it is installed, with no library path: its run path leads
# from its own place to the installed libraries.
run_installed_tool()
{
    local prefix=$1 libdir=$2 egw=$1/bin/egw
    [[ -x "$egw" ]] || fail "bin/egw not installed"
    local library runpath
    for library in "$egw" "$prefix/$libdir/libelementGateway.so.1"; do
        runpath=$("$readelf" -d "$library" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
        [[ "$runpath" == '$ORIGIN'* && "$runpath" != *"$build"* ]] ||
            fail "$(basename "$library") has the run path '$runpath'"
    done
    local -a emulator=()
    read -r -a emulator <<<"${CONSUMER_EMULATOR:-}"
    local output
    output=$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$egw" --version) &&
        grep -q '^egw ' <<<"$output" || fail "egw --version from $prefix"
    output=$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$egw" demo) &&
        grep -q 'FIRE ALARM' <<<"$output" || fail "egw demo from $prefix"
    echo "installed egw runs from $prefix with its relative run path"
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

depends_of()
{
    dpkg-deb -f "$1" Depends | tr ',' '\n' | sed 's/(.*)//; s/ //g' | sed '/^$/d'
}

# Where a library of the target system lies, and the package that ships it: the package's name
# without the ":arch" or "-arch-cross" of a cross build's runtime packages.
system_package()
{
    local soname=$1 dir candidate
    # A cross build's target root (OpenSSL, SQLite from Debian's packages) names its packages in
    # their shlibs lines ("libssl 3 libssl3 (>= 3.0.20)").
    if [[ -f ${TARGET_SHLIBS:-} && $soname =~ ^(.+)\.so\.([0-9.]+)$ ]]; then
        candidate=$(awk -v l="${BASH_REMATCH[1]}" -v v="${BASH_REMATCH[2]}" \
            '$1 == l && $2 == v {print $3; exit}' "$TARGET_SHLIBS")
        [[ -n $candidate ]] && { echo "$candidate"; return; }
    fi
    for dir in ${SYSTEM_LIBRARY_DIRS:-/lib /usr/lib}; do
        [[ -e "$dir/$soname" ]] || continue
        for candidate in "$dir/$soname" "/usr${dir#/usr}/$soname" "${dir#/usr}/$soname" \
            "$(readlink -f "$dir/$soname")"; do
            if dpkg -S "$candidate" >/dev/null 2>&1; then
                dpkg -S "$candidate" | head -n 1 | cut -d: -f1 | sed -E 's/-[a-z0-9]+-cross$//'
                return
            fi
        done
    done
}

# Unpacks the package and the packages of this build that it declares, transitively, into a
# root of its own; checks that every library its files load is in that root or comes from a system
# package that it declares.
unpack_alone()
{
    local deb=$1 root=$2 name
    name=$(dpkg-deb -f "$deb" Package)
    rm -rf "$root"
    mkdir -p "$root"
    local -a queue=("$name") done=()
    while [[ ${#queue[@]} -gt 0 ]]; do
        local next=${queue[0]} dependency
        queue=("${queue[@]:1}")
        [[ " ${done[*]} " == *" $next "* ]] && continue
        done+=("$next")
        local file
        file=$(package_file "$next")
        dpkg-deb -x "$file" "$root"
        for dependency in $(depends_of "$file"); do
            compgen -G "$work/packages/${dependency}_*.deb" >/dev/null && queue+=("$dependency")
        done
    done
    local declared elf needed
    declared=$(depends_of "$deb")
    while IFS= read -r elf; do
        "$readelf" -h "$elf" >/dev/null 2>&1 || continue
        for needed in $("$readelf" -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            [[ -e "$root/usr/$libdir/$needed" ]] && continue
            local package
            package=$(system_package "$needed")
            [[ -n "$package" ]] ||
                fail "$name: ${elf#"$root"/} loads $needed, which no package it declares holds"
            grep -qx "$package" <<<"$declared" ||
                fail "$name: ${elf#"$root"/} loads $needed of $package, which it does not declare"
        done
    done < <(dpkg-deb -c "$deb" | awk '$1 ~ /^-/ {print $6}' | sed "s|^\./|$root/|")
    echo "$name unpacked with only what it declares (${done[*]}); every library it loads is there"
}

check_packages()
{
    local usr_lib=usr/$libdir major=1
    local runtime development simulator tools
    runtime=$(package_file libelementgateway$major)
    development=$(package_file libelementgateway-dev)
    simulator=$(package_file elementgateway-panelsim)
    tools=$(package_file elementgateway-tools)
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
        "$usr_lib/libpanelsim\.so\.$major\..*" -- "$usr_lib/libelementGateway.*" \
        "usr/include/.*" "usr/bin/.*"
    # A cross build makes no manual pages (its programs do not run on the build machine).
    local -a egw_man=() egwd_man=()
    if [[ -e $build/man/egw.1.gz ]]; then
        egw_man=("usr/share/man/man1/egw\.1\.gz")
        egwd_man=("usr/share/man/man1/egwd\.1\.gz")
    fi
    expect_paths "$tools" "usr/bin/egw" "usr/share/elementGateway/samplePanel\.json" \
        "${egw_man[@]}" -- "$usr_lib/.*" "usr/include/.*"
    echo "packages hold their parts:" "${runtime##*/}" "${development##*/}" "${simulator##*/}" \
        "${tools##*/}"
    local deb packages=("$runtime" "$development" "$simulator" "$tools") service=
    if compgen -G "$work/packages/elementgateway-service_*.deb" >/dev/null; then
        service=$(package_file elementgateway-service)
        expect_paths "$service" "usr/bin/egwd" "usr/share/elementGateway/panelService\.thrift" \
            "usr/lib/python3/dist-packages/egw_rpc/PanelService\.py" \
            "usr/share/elementGateway/examples/egwClientExample\.py" \
            "usr/lib/systemd/system/egwd\.service" \
            "etc/default/egwd" "${egwd_man[@]}" \
            "usr/share/elementGateway/web/index\.html" "usr/share/elementGateway/web/page\.js" \
            "usr/share/elementGateway/web/style\.css" -- "$usr_lib/lib.*" \
            "usr/include/.*"
        dpkg-deb -I "$service" conffiles | grep -qx /etc/default/egwd ||
            fail "/etc/default/egwd is no conffile of $(basename "$service")"
        packages+=("$service")
    fi
    for deb in "${packages[@]}"; do
        unpack_alone "$deb" "$work/root-$(dpkg-deb -f "$deb" Package)"
    done
    # What the packages ship runs in their own roots.
    run_installed_tool "$work/root-elementgateway-tools/usr" "$libdir"
    if [[ -n $service ]]; then
        local egwd=$work/root-elementgateway-service/usr/bin/egwd
        local -a emulator=()
        read -r -a emulator <<<"${CONSUMER_EMULATOR:-}"
        # egwd from its package's root serves the sample panel with the packaged library: the
        # packaged example client (on this machine, with the packaged Python module) walks
        # through it to its end.
        local service_root=$work/root-elementgateway-service
        (cd "$work" && exec env -u LD_LIBRARY_PATH "${emulator[@]}" "$egwd" --port 0 \
            --database "$work/egwd.db" >"$work/egwd.out" 2>"$work/egwd.err") &
        local server=$! port= _
        for _ in $(seq 300); do
            port=$(sed -n 's/.* on 127\.0\.0\.1:\([0-9]*\) .*/\1/p' "$work/egwd.out")
            [[ -n $port ]] && break
            sleep 0.1
        done
        [[ -n $port ]] ||
            { kill "$server"; cat "$work/egwd.err"; fail "the packaged egwd did not serve"; }
        PYTHONPATH=$service_root/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 \
            /usr/bin/python3 "$service_root/usr/share/elementGateway/examples/egwClientExample.py" \
            "127.0.0.1:$port" 2222 >"$work/example.out" 2>&1 ||
            { kill "$server"; cat "$work/example.out" "$work/egwd.err"; fail "the example client"; }
        kill "$server"
        wait "$server" || true
        echo "egwd runs from its package's root and serves the packaged example client"
        # The unit starts the egwd the package installs.
        grep -q '^ExecStart=/usr/bin/egwd ' \
            "$work/root-elementgateway-service/usr/lib/systemd/system/egwd.service" ||
            fail "the systemd unit does not start /usr/bin/egwd"
    fi
    dev_root=$work/root-libelementgateway-dev/usr
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
        [[ "$variant" == cmake && -e "$build/tools/egw" ]] && run_installed_tool "$work/prefix" "$libdir"
        # The unit installed into a prefix starts that prefix's egwd.
        if [[ -e "$build/service/egwd" ]]; then
            grep -qx "ExecStart=$work/prefix/bin/egwd \$EGWD_OPTIONS" \
                "$work/prefix/lib/systemd/system/egwd.service" ||
                fail "the installed unit does not start $work/prefix/bin/egwd"
        fi
        run_consumer "$work/prefix" "$libdir" "$variant" "$work" "$@"
        ;;
    packages)
        cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 ||
            { cat "$work/cpack.log"; fail "cpack"; }
        check_packages
        check_tree "$dev_root" "$libdir"
        run_consumer "$dev_root" "$libdir" cmake "$work" "$@"
        run_consumer "$dev_root" "$libdir" pkg-config "$work" "$@"
        ;;
    *) fail "unknown mode '$mode'" ;;
esac
