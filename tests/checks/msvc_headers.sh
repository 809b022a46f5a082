#!/usr/bin/env bash
# Reads each public header as Microsoft's compiler would, as far as clang can play it: its target, its rules and C++17, which
# is what a host may be written in. MinGW's headers stand in for those of its standard library.
# usage: msvc_headers.sh SOURCE_FOLDER
set -euo pipefail
cd "$1"

mingw=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")/include
compile=(
  clang++-14 --target=x86_64-pc-windows-msvc -std=c++17 -fms-compatibility -fms-extensions -fsyntax-only -Wall -Wextra -Werror
  -fgnuc-version=12.2.0 -D__MINGW32__ -D__MINGW64__ -D__STRICT_ANSI__ -D__declspec=__declspec
  -nostdinc++ -isystem "$mingw/c++" -isystem "$mingw/c++/x86_64-w64-mingw32" -isystem /usr/x86_64-w64-mingw32/include
  -Iinclude -Iplatform
)
count=0
for header in include/TansyCloudStorage/*.h platform/KivPlatform/*.h; do
  "${compile[@]}" -x c++ - <<<"#include \"${header#*/}\""
  count=$((count + 1))
done
echo "msvc_headers: $count headers"
