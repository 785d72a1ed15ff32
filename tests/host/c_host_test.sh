#!/bin/sh
# A host in C, compiled against the installed headers and linked with the installed module; its source is C++ as well.
# usage: c_host_test.sh BUILD-FOLDER CMAKE
set -eu
source=$(dirname "$0")/c_host/c_host.c
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
