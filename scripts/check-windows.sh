#!/usr/bin/env bash
# Compiles every source for 64-bit Windows, without linking: the libraries to link with are not among Debian's packages.
# usage: scripts/check-windows.sh [FILE...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/dependencies.sh --windows

# Headers of libraries that are the same on both systems, without this system's own beside them.
headers=$(mktemp -d)
trap 'rm -rf "$headers"' EXIT
for library in boost CLI toml++ rapidjson; do
  ln -s "/usr/include/$library" "$headers/$library"
done
for library in openssl sqlite3.h pugixml.hpp pugiconfig.hpp; do
  cp -rs "/usr/include/$library" "$headers/$library"
done
cp -s /usr/include/postgresql/{libpq-fe.h,postgres_ext.h,pg_config_ext.h} "$headers/"
ln -s "/usr/include/$(gcc -print-multiarch)/openssl/"* "$headers/openssl/"

# Formats are checked by the native build; here they would be held against a C library that does not know all of them.
compile=(
  x86_64-w64-mingw32-g++-posix -std=c++20 -fsyntax-only -Wall -Wextra -Werror -Wno-unknown-pragmas -Wno-format -Wno-format-extra-args
  -D_WIN32_WINNT=0x0A00 -DNOMINMAX -DTANSY_VERSION='"0"' -DSCHEMA_FILE='""' -Dlogging_EXPORTS -DTANSY_CLOUD_STORAGE_BUILD
  -DBOOST_ASIO_SEPARATE_COMPILATION -DBOOST_BEAST_SEPARATE_COMPILATION
  -Iplatform -Iinclude -Isrc -Ihost -Icli
  -isystem "$headers"
)
if (($# > 0)); then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'platform/*.cpp' 'src/*.cpp' 'host/*.cpp' 'cli/*.cpp' 'examples/*.cpp' ':!*/posix/*')
fi
printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" "${compile[@]}"
echo "check-windows: ${#files[@]} sources compile"
