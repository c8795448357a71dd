#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs, when any is missing. Prints nothing when all
# are there. Runs as root, or through sudo otherwise.
#
#   scripts/setup.sh          native build, tests, sanitizers, packages
#   scripts/setup.sh cross    also the ARM cross compilers and qemu-user for the target tests
# The ARM builds' libraries for egwd (Thrift, OpenSSL, SQLite, cpp-httplib) are not installed
# here: scripts/crossDeps.sh makes them from Debian's packages into a cache of their own when the
# cross builds configure (scripts/test.sh, scripts/common.sh).
set -euo pipefail

packages=(build-essential cmake ninja-build g++ clang clang-14 libclang-rt-14-dev ccache pkg-config
          binutils file dpkg-dev python3 help2man
          googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev libcli11-dev
          libthrift-dev thrift-compiler python3-thrift libboost-dev libssl-dev openssl libsqlite3-dev)
# The operator page: its HTTP listener, its browser tests (chromium; the audit read with sqlite3;
# a test certificate made with openssl) and node to build it, Debian's only when none is installed.
packages+=(libcpp-httplib-dev chromium sqlite3 openssl)
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    packages+=(nodejs npm)
fi
for group in "$@"; do
    case "$group" in
        cross) packages+=(g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user) ;;
        *) echo "setup.sh: unknown group '$group' (known: cross)" >&2; exit 2 ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null) || true
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$package")
    fi
done
# The page's npm packages, pinned by web/package-lock.json, when missing or older than the lock.
web_modules()
{
    local web
    web=$(cd "$(dirname "$0")/../web" && pwd)
    if [[ ! -f $web/node_modules/.package-lock.json ||
          $web/package-lock.json -nt $web/node_modules/.package-lock.json ]]; then
        echo "setup.sh: npm ci in $web"
        (cd "$web" && npm ci --no-audit --no-fund --loglevel=error)
    fi
}
[[ ${#missing[@]} -eq 0 ]] && { web_modules; exit 0; }

sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi
echo "setup.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Other sessions may hold the package lock for a while; wait for it instead of failing.
apt_options=(-qq -o DPkg::Lock::Timeout=600)
"${sudo[@]}" apt-get "${apt_options[@]}" update
"${sudo[@]}" apt-get "${apt_options[@]}" install -y --no-install-recommends "${missing[@]}" \
    >/dev/null
web_modules
