#!/bin/sh
# A host in C, compiled against the installed headers and linked with the installed module; its source is C++ as well.
# usage: c_host_test.sh BUILD-FOLDER CMAKE
set -eu
source=$(dirname "$0")/../../examples/c_host/c_host.c
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
"$2" --install "$1" --prefix "$folder" >"$folder/log"
library=$(dirname "$(find "$folder" -name libmvpn.so)")
flags="-Wall -Wextra -Wpedantic -Wno-missing-field-initializers -Werror -I$folder/include/libmvpn"
# Functions that this host has no use for stay open until they are called.
link="-L$library -lmvpn -Wl,-rpath,$library -Wl,--unresolved-symbols=ignore-in-shared-libs -Wl,-z,lazy"
gcc -std=c11 $flags "$source" -o "$folder/c_host" $link
g++ -std=c++20 $flags -fsyntax-only -x c++ "$source"
"$folder/c_host"

# A module for another version of the contract is refused by name and not by the first service that is missing.
other=$folder/other.so
cp "$library/libmvpn.so" "$other"
version=$(sed -n 's/^#define PLATFORM_CONTRACT_VERSION //p' "$folder/include/libmvpn/platform/types.h")
hex=$(printf '\\x%02x' "$version")
[ "$(readelf -d "$library/libmvpn.so" | sed -n 's/.*soname: \[\(.*\)\].*/\1/p')" = "libmvpn.so.$version" ]
place=$(($(LC_ALL=C grep -obUaP 'mvpn\x00\x00\x00\x00'"$hex"'\x00\x00\x00' "$other" | head -n 1 | cut -d: -f1) + 8))
printf '\007' | dd of="$other" bs=1 seek="$place" conv=notrunc 2>/dev/null
config=$(dirname "$0")/../../examples/two-vrfs.conf
said=$("$1/bin/pimhostd" --check-config --config "$config" --module "$other" 2>&1) && exit 1
case $said in
  *"version 7 of the platform contract, this host for version $version"*) ;;
  *) echo "$said"; exit 1 ;;
esac
