#!/usr/bin/env bash
# Packs the zip, unpacks it in a fresh folder, and starts the programs from there.
# usage: package.sh BUILD_FOLDER
set -euo pipefail

build=$1
wine=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)/wine.sh
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

cpack --config "$build/CPackConfig.cmake" -B "$folder" >"$folder/log" 2>&1 || { tail -n 30 "$folder/log" >&2; exit 1; }
mkdir "$folder/unpacked"
cd "$folder/unpacked"
cmake -E tar xf "$folder"/TansyCloudStorage-*-win64.zip
cd TansyCloudStorage-*-win64
for file in bin/TansyCloudStorage.dll lib/tansy/libTansyCloudStorage.dll.a include/TansyCloudStorage/CloudStorage.h \
  lib/cmake/TansyCloudStorage/TansyCloudStorageConfig.cmake share/TansyCloudStorage/schema/sqlite/0001-catalogue.sql \
  share/doc/TansyCloudStorage/docs/windows.md share/doc/TansyCloudStorage/licenses/libssl-dev.txt; do
  [[ -s $file ]] || { echo "package: no $file" >&2; exit 1; }
done
for program in tansyd tansy; do
  timeout 60 "$wine" "bin/$program.exe" --version | grep "^$program [0-9]"
done
du -sh "$folder"/TansyCloudStorage-*-win64.zip | cut -f1
