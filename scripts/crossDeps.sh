#!/usr/bin/env bash
# The target libraries egwd links on the board, made from Debian's own packages: a root per target
# with Apache Thrift's C++ library built from Debian's source package (static, with the target's
# string ABI), the single-header cpp-httplib from Debian's source package, and the target's OpenSSL,
# SQLite and Boost headers unpacked from Debian's .debs for that architecture. Prints the root of
# each target asked for, one a line.
#
#   scripts/crossDeps.sh TARGET...     armhf (32-bit, legacy string ABI) or aarch64
#
# Everything is kept in a cache outside the checkout, so that fresh clones share it:
# $EGW_CROSS_CACHE, or /var/cache/elementGateway when writable, or $XDG_CACHE_HOME/elementGateway.
# A root is named by a key over every version that goes into it (the packages', the cross
# compiler's, the recipe's below and the toolchain files'), so a second run costs a look-up and a
# changed version builds a new root. The system's apt is left untouched: the package indexes (with
# deb-src lines for the same archive the system uses) live in the cache too, and apt checks every
# download against them and their signed Release files.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

if [[ -n ${EGW_CROSS_CACHE:-} ]]; then
    cache=$EGW_CROSS_CACHE
elif mkdir -p /var/cache/elementGateway 2>/dev/null && [[ -w /var/cache/elementGateway ]]; then
    cache=/var/cache/elementGateway
else
    cache=${XDG_CACHE_HOME:-$HOME/.cache}/elementGateway
fi
mkdir -p "$cache"
jobs=${EGW_JOBS:-2}
say() { echo "crossDeps.sh: $*" >&2; }

[[ $# -gt 0 ]] || { echo "usage: crossDeps.sh armhf|aarch64..." >&2; exit 2; }
for target in "$@"; do
    [[ $target =~ ^(armhf|aarch64)$ ]] ||
        { echo "crossDeps.sh: unknown target '$target' (known: armhf, aarch64)" >&2; exit 2; }
done

# One builder at a time per cache: CI and engineers may share it.
exec 9>"$cache/.lock"
flock 9

# ---- A private apt over the archive the system uses -------------------------------------------
apt_dir=$cache/apt
apt_options=(-o "Dir::Etc::sourcelist=$apt_dir/sources.list" -o "Dir::Etc::sourceparts=-"
             -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
             -o "Dir::Cache=$apt_dir/cache" -o "APT::Architectures::=armhf"
             -o "APT::Architectures::=arm64" -o "Debug::NoLocking=1" -o "Acquire::Retries=3")
# Downloads into the cache go unsandboxed when it is root's (apt's own user cannot write there).
[[ $(id -u) -ne 0 ]] || apt_options+=(-o "APT::Sandbox::User=root")
apt_private() { apt-get "${apt_options[@]}" "$@"; }

write_sources()
{
    mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
    : >"$apt_dir/status"
    local uri suite component signed=/usr/share/keyrings/debian-archive-keyring.gpg
    : >"$apt_dir/sources.new"
    # The system's Debian suites (the release, its updates and security), each with its sources.
    while read -r uri suite component; do
        echo "deb [signed-by=$signed] $uri $suite $component" >>"$apt_dir/sources.new"
        echo "deb-src [signed-by=$signed] $uri $suite $component" >>"$apt_dir/sources.new"
    done < <(apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
                 'Identifier: Packages' 2>/dev/null | grep -E '/debian(-security)?/? ' | sort -u)
    [[ -s $apt_dir/sources.new ]] || { say "the system's apt names no Debian archive"; exit 1; }
    mv "$apt_dir/sources.new" "$apt_dir/sources.list"
}

update_indexes()
{
    say "fetching the package indexes (armhf, arm64, sources)"
    write_sources
    # A mirror in the middle of a sync fails an index's size check, and apt then leaves out that
    # whole suite. A second try may find it whole; if not, the suites that came are used (without
    # a suite of updates the root is built from the release's versions, which the board's newer
    # ones stay compatible with), as long as the release itself came.
    local attempt index
    for attempt in 1 2; do
        if apt_private -qq update 2>"$apt_dir/update.log" && ! grep -q '^[EW]:' "$apt_dir/update.log"
        then
            return 0
        fi
        say "apt-get update, try $attempt: $(grep -m 1 '^[EW]:' "$apt_dir/update.log")"
        [[ $attempt -eq 2 ]] || sleep 10
    done
    for index in main_binary-armhf_Packages main_binary-arm64_Packages main_source_Sources; do
        compgen -G "$apt_dir/lists/*_debian_dists_bookworm_${index}*" >/dev/null ||
            { say "the release's index $index is missing"; exit 1; }
    done
    say "going on with the suites that came"
}

[[ -s $apt_dir/sources.list ]] && compgen -G "$apt_dir/lists/*Sources*" >/dev/null ||
    update_indexes

# "name=version" of the candidates of binary packages (name:arch) and source packages (src:name),
# in the order given; one query of each kind, as apt reads its whole cache for every query.
versions_of()
{
    local binaries=() sources=() package
    for package in "$@"; do
        if [[ $package == src:* ]]; then sources+=("${package#src:}"); else binaries+=("$package"); fi
    done
    local policy uris
    policy=$(apt-cache "${apt_options[@]}" policy "${binaries[@]}" 2>/dev/null) || true
    uris=$(apt_private -qq source --print-uris "${sources[@]}" 2>/dev/null) || true
    for package in "$@"; do
        if [[ $package == src:* ]]; then
            sed -nE "s/^'[^']*' ${package#src:}_([^_]+)\.dsc .*/$package=\1/p" <<<"$uris" | head -n 1
        else
            awk -v p="$package:" '$0 == p {found = 1; next} /^[^ ]/ {found = 0}
                found && $1 == "Candidate:" && $2 != "(none)" {print substr(p, 1, length(p) - 1) "=" $2}' \
                <<<"$policy"
        fi
    done
}

# ---- Per target --------------------------------------------------------------------------------
source_packages=(thrift cpp-httplib)
# The version of the way a root is made below: raise it with every change to what goes into a root
# or how, so that the cached roots are made again.
recipe=1

build_root()
{
    local target=$1 arch triple abi_flags root key package version found_fingerprint
    case "$target" in
        armhf) arch=armhf triple=arm-linux-gnueabihf abi_flags=-D_GLIBCXX_USE_CXX11_ABI=0 ;;
        aarch64) arch=arm64 triple=aarch64-linux-gnu abi_flags= ;;
    esac
    local binaries=(libssl-dev:$arch libssl3:$arch libsqlite3-dev:$arch libsqlite3-0:$arch
                    libboost1.74-dev:$arch)

    # The versions are looked up in the indexes only when the indexes, this script, the toolchain
    # files or the compiler changed since the last look-up (apt takes seconds a query); otherwise
    # the root found then is the answer.
    local fingerprint memo=$cache/$target.found
    fingerprint=$( { ls -l --time-style=+%s "$apt_dir/lists"; "$triple-g++" --version | head -n 1
                     cat "${BASH_SOURCE[0]}" "$repo/cmake/toolchains/debianCross.cmake" \
                         "$repo/cmake/toolchains/$triple.cmake"; } | sha256sum | cut -c 1-16)
    if [[ -f $memo ]] && read -r found_fingerprint root <"$memo" &&
        [[ $found_fingerprint == "$fingerprint" && -f $root/.complete ]]; then
        echo "$root"
        return 0
    fi

    local wanted=("${source_packages[@]/#/src:}" "${binaries[@]}") versions=()
    mapfile -t versions < <(versions_of "${wanted[@]}")
    if [[ ${#versions[@]} -ne ${#wanted[@]} ]]; then
        update_indexes
        mapfile -t versions < <(versions_of "${wanted[@]}")
        [[ ${#versions[@]} -eq ${#wanted[@]} ]] ||
            { say "no candidate for some of ${wanted[*]}: ${versions[*]}"; exit 1; }
    fi
    key=$( { printf '%s\n' "${versions[@]}" "recipe $recipe $abi_flags"
             "$triple-g++" --version | head -n 1
             cat "$repo/cmake/toolchains/debianCross.cmake" "$repo/cmake/toolchains/$triple.cmake"
           } | sha256sum | cut -c 1-16)
    root=$cache/$target-$key
    if [[ -f $root/.complete ]]; then
        echo "$fingerprint $root" >"$memo"
        echo "$root"
        return 0
    fi

    say "$target: building $root"
    local work=$cache/work/$target
    rm -rf "$root" "$work"
    mkdir -p "$root" "$work" "$cache/sources" "$cache/debs"

    # The target's .debs, checked by apt against the signed indexes, unpacked into the root; the
    # runtime packages' shlibs are kept for the Depends of the board's packages.
    local names=() deb name
    for package in "${versions[@]}"; do
        [[ $package == src:* ]] || names+=("$package")
    done
    (cd "$cache/debs" && apt_private -qq download "${names[@]}" >/dev/null) ||
        { update_indexes; (cd "$cache/debs" && apt_private -qq download "${names[@]}" >/dev/null); }
    : >"$root/shlibs"
    for package in "${names[@]}"; do
        name=${package%%:*} version=${package#*=}
        deb=$cache/debs/${name}_${version//:/%3a}_$arch.deb
        dpkg-deb -x "$deb" "$root"
        if dpkg-deb --ctrl-tarfile "$deb" | tar -tf - ./shlibs >/dev/null 2>&1; then
            dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./shlibs >>"$root/shlibs"
        fi
    done

    # A cross compiler searches the root's include directory, not Debian's multiarch one below it.
    cp -a "$root/usr/include/$triple/." "$root/usr/include/"
    rm -rf "$root/usr/include/$triple"

    # Debian's source packages, their checksums checked by apt against the signed Sources index
    # and by dpkg-source, with Debian's patches applied.
    local source_dir
    for package in "${source_packages[@]}"; do
        version=$(printf '%s\n' "${versions[@]}" | sed -n "s/^src:$package=//p")
        source_dir=$cache/sources/${package}_$version
        if [[ ! -f $source_dir/.complete ]]; then
            rm -rf "$source_dir" && mkdir -p "$source_dir"
            (cd "$source_dir" &&
                apt_private -qq source --download-only "$package=$version" >/dev/null &&
                dpkg-source --require-strong-checksums -x ./*.dsc tree >/dev/null 2>&1) ||
                { say "cannot fetch the source package $package $version"; exit 1; }
            touch "$source_dir/.complete"
        fi
    done

    # The single-header cpp-httplib (its implementation inline) with OpenSSL, and a pkg-config
    # file like Debian's, without the compressions egwd does not use.
    local httplib_version
    httplib_version=$(printf '%s\n' "${versions[@]}" | sed -n 's/^src:cpp-httplib=//p')
    mkdir -p "$root/usr/include" "$root/usr/lib/$triple/pkgconfig"
    cp "$cache/sources/cpp-httplib_$httplib_version/tree/httplib.h" "$root/usr/include/httplib.h"
    cat >"$root/usr/lib/$triple/pkgconfig/cpp-httplib.pc" <<EOF
prefix=/usr
includedir=\${prefix}/include

Name: cpp-httplib
Description: A C++ HTTP/HTTPS server and client library (single header)
Version: ${httplib_version%%+*}
Requires.private: openssl >= 1.1.1
Libs: -pthread
Cflags: -I\${includedir} -DCPPHTTPLIB_OPENSSL_SUPPORT
EOF

    # Apache Thrift's C++ library, static, with the target's string ABI; nothing else of Thrift.
    local thrift_version
    thrift_version=$(printf '%s\n' "${versions[@]}" | sed -n 's/^src:thrift=//p')
    local flags="-O2 -g $abi_flags -ffile-prefix-map=$cache=."
    { cmake -S "$cache/sources/thrift_$thrift_version/tree" -B "$work/thrift" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchains/$triple.cmake" -DEGW_TARGET_ROOT="$root" \
        -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" \
        -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DCMAKE_INSTALL_PREFIX=/usr \
        -DLIB_INSTALL_DIR:STRING="lib/$triple" \
        -DPKGCONFIG_INSTALL_DIR:STRING="lib/$triple/pkgconfig" \
        -DCMAKE_INSTALL_DIR:STRING="lib/$triple/cmake" -DBUILD_SHARED_LIBS=OFF -DBUILD_COMPILER=OFF \
        -DBUILD_TESTING=OFF -DBUILD_TUTORIALS=OFF -DBUILD_CPP=ON -DBUILD_C_GLIB=OFF \
        -DBUILD_JAVA=OFF -DBUILD_JAVASCRIPT=OFF -DBUILD_NODEJS=OFF -DBUILD_PYTHON=OFF \
        -DBUILD_HASKELL=OFF -DBUILD_AS3=OFF -DWITH_OPENSSL=ON -DWITH_ZLIB=OFF \
        -DWITH_LIBEVENT=OFF -DWITH_QT5=OFF -DBoost_NO_BOOST_CMAKE=ON \
        -DBoost_INCLUDE_DIR="$root/usr/include" &&
      cmake --build "$work/thrift" -j "$jobs" &&
      DESTDIR=$root cmake --install "$work/thrift"; } >"$work/thrift.log" 2>&1 ||
        { tail -n 40 "$work/thrift.log" >&2; say "building Thrift for $target failed"; exit 1; }
    # Thrift's pkg-config file names /usr/lib whatever the library directory; and a static Thrift
    # needs OpenSSL after it on the link line, which the file must say.
    sed -i -E -e "s|^libdir=.*|libdir=/usr/lib/$triple|" \
        -e 's/^(Version: .*)$/\1\nRequires.private: openssl/' \
        "$root/usr/lib/$triple/pkgconfig/thrift.pc"
    if [[ -n $abi_flags ]] && nm -C "$root/usr/lib/$triple/libthrift.a" | grep -q __cxx11; then
        say "$target: libthrift.a has symbols of the new string ABI"
        exit 1
    fi

    printf '%s\n' "${versions[@]}" >"$root/versions"
    rm -rf "$work"
    touch "$root/.complete"
    echo "$fingerprint $root" >"$memo"
    # Roots of older keys of this target are no longer used.
    find "$cache" -maxdepth 1 -name "$target-*" ! -path "$root" -exec rm -rf {} +
    echo "$root"
}

for target in "$@"; do
    build_root "$target"
done
