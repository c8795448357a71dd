#!/usr/bin/env bash
# The interface guard of libelementGateway. Function names are demangled and written the same way
# for both libstdc++ string ABIs, so one list serves every target.
#
#   symbols.sh exported NM LIBRARY            the library's exported functions
#   symbols.sh declared CLANG SOURCE_DIR      the functions that the public headers declare
#   symbols.sh check LIST NM LIBRARY          exported functions against LIST, both ways, and no
#                                             exported symbol of the host, the simulator, the
#                                             standard library or the gateway's internals
#   symbols.sh check-declared LIST CLANG SOURCE_DIR
#                                             declared functions against LIST, both ways
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
headers=(api/gatewayTypes.h api/gatewayApi.h composite/gatewayComposite.h
         identity/gatewayIdentity.h)

normalise()
{
    local string='std::basic_string<char, std::char_traits<char>, std::allocator<char> >'
    sed -e 's/std::__cxx11::/std::/g' -e 's/\[abi:cxx11\]//g' -e "s/$string/std::string/g" |
        LC_ALL=C sort -u
}

# nm lines: address, type letter, demangled name. Functions are T (text), W (weak) or i (ifunc).
exported_symbols()
{
    "$1" -D --defined-only -C "$2" | sed -E 's/^[0-9a-fA-F]* //'
}

exported()
{
    exported_symbols "$1" "$2" | sed -nE 's/^[TWi] //p' | normalise
}

declared()
{
    local clang=$1 source=$2
    "$clang" -x c++ -std=c++17 -I"$source" -fsyntax-only -Xclang -ast-dump=json \
        "$source/elementGateway.h" | python3 "$here/declaredFunctions.py" "${headers[@]}" |
        c++filt | normalise
}

# Prints what only one side has; fails when anything differs.
compare()
{
    local list=$1 actual=$2 what=$3
    local missing extra
    missing=$(LC_ALL=C comm -23 "$list" <(echo "$actual"))
    extra=$(LC_ALL=C comm -13 "$list" <(echo "$actual"))
    if [[ -n "$missing" || -n "$extra" ]]; then
        [[ -z "$missing" ]] || printf 'In %s but not %s:\n%s\n' "$list" "$what" "$missing"
        [[ -z "$extra" ]] || printf '%s but not in %s:\n%s\n' "${what^}" "$list" "$extra"
        return 1
    fi
    echo "$(wc -l <"$list") functions, as $what"
}

# Symbols that belong to the host, the simulator, the standard library or the gateway's own
# helpers, and objects of any kind: none of them may leave the library.
forbidden()
{
    # A name starts after the type letter, behind a template's return type if it has one.
    local name='^. ([^ (]+ )?'
    exported_symbols "$1" "$2" | grep -E \
        -e '^[^TWi] ' -e '\(anonymous namespace\)' \
        -e "$name(std|__gnu_cxx|__cxxabiv1|egw|panelsim)::" \
        -e "$name(Element|Property|CTreeItem|ElementServer|CIDDefine)::" \
        -e "$name(DebugPrint|GetPropertyTypeByID|GetPropertyList|GetRelationList)\(" \
        -e "$name(GetCommandList|GetStateList|GetAllStatusInGroup|GetDefaultStatusOfGroup)\(" \
        -e "$name(GetPropertyDefaultList|GetVisibleByType)\(" || true
}

case "${1:-}" in
    exported) exported "$2" "$3" ;;
    declared) declared "$2" "$3" ;;
    check)
        list=$2 nm_tool=$3 library=$4
        status=0
        compare "$list" "$(exported "$nm_tool" "$library")" "exported by $(basename "$library")" ||
            status=1
        leaked=$(forbidden "$nm_tool" "$library")
        if [[ -n "$leaked" ]]; then
            printf 'Exported but not part of the interface:\n%s\n' "$leaked"
            status=1
        fi
        exit $status
        ;;
    check-declared) compare "$2" "$(declared "$3" "$4")" "declared in the public headers" ;;
    *) sed -n '2,12p' "$0" >&2; exit 2 ;;
esac
