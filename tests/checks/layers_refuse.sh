#!/usr/bin/env bash
# The check of the layers has to fail for includes that point the wrong way; each is added to a copy of the tree.
# usage: layers_refuse.sh SOURCE_FOLDER
set -uo pipefail
checks=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp -r "$1/include" "$1/src" "$1/platform" "$1/host" "$1/cli" "$1/tests" "$copy"

failures=0
# refuses FILE INCLUDE WORDS: with that include in that file, the check fails and says so.
refuses() {
  local file="$copy/$1" include="\"$2\"" words=$3 said
  [[ $2 != '<'* ]] || include=$2
  cp "$file" "$copy/kept"
  sed -i "1i #include $include" "$file"
  if said=$(bash "$checks/layers.sh" "$copy") || [[ "$said" != *"$words"* ]]; then
    echo "layers_refuse: $1 with $2 gives: $said"
    failures=$((failures + 1))
  fi
  mv "$copy/kept" "$file"
}

refuses platform/TansyNet/client/Exchange.cpp TansyNet/server/ServerWorker.h "platform/TansyNet/client may not"
refuses platform/TansyNet/wire/Url.cpp TansyNet/transport/TlsSession.h "platform/TansyNet/wire may not"
refuses platform/TansyNet/server/ServerWorker.h TansyNet/server/ServerConnection.h "in a circle"
refuses src/StorageServer/ServerComm.cpp TansyNet/server/Endpoint.h "internal to TansyNet"
refuses src/StorageServer/S3Server/S3Request.cpp StorageServer/ObjectServer/ObjectServer.h "src/StorageServer/S3Server may not"
refuses src/StorageServer/ObjectServer/ReadLease.cpp StorageServer/S3Server/S3Text.h "src/StorageServer/ObjectServer may not"
refuses src/StorageServer/PicServer/PictureServer.cpp StorageServer/ObjectServer/ReadLease.h "src/StorageServer/PicServer may not"
refuses host/StoreMirror.cpp '<semaphore>' "may never end on Windows"
refuses tests/unit/platform/TansyBase/MessageLoopTest.cpp '<latch>' "may never end on Windows"

((failures == 0)) || exit 1
bash "$checks/layers.sh" "$copy" || exit 1
echo "layers_refuse: every forbidden include is found"
