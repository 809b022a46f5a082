#!/usr/bin/env bash
# Fails on an include line that points the wrong way, on system conditionals where they do not belong, and on what one of
# the compilers has wrong.
# usage: layers.sh SOURCE_FOLDER
set -uo pipefail
checks=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cd "$1" || exit 2

failures=0
complain() {
  echo "layers: $1"
  failures=$((failures + 1))
}

# What each folder may include of the project: words are the first component of a quoted include.
declare -A allowed=(
  [platform/logging]="logging OSAL"
  [platform/OSAL]="OSAL"
  [platform/TansyBase]="TansyBase OSAL logging"
  [platform/KivPlatform]="KivPlatform"
  [platform/TansyProto]="TansyProto logging"
  [platform/TansyNet]="TansyNet TansyBase OSAL logging"
  [platform/db_layer]="db_layer TansyBase OSAL logging"
  [platform/sqlbuilder]="sqlbuilder db_layer"
  [platform/HostSystem]="HostSystem"
  [include]="TansyCloudStorage"
  [src]="StorageServer StorageClient Common TansyCloudStorage KivPlatform TansyNet TansyBase TansyProto db_layer sqlbuilder OSAL logging"
  [host]="host HostSystem TansyCloudStorage KivPlatform TansyNet TansyBase TansyProto db_layer sqlbuilder OSAL logging"
  [cli]="cli HostSystem TansyCloudStorage TansyNet TansyBase TansyProto OSAL logging"
)

# Rooms within a library: what the files of each may include of their own library.
declare -A rooms=(
  [platform/TansyNet/server]="TansyNet/(server/|wire/|transport/|(MemoryAccount|Operation|RequestWatch)\.h)"
  [platform/TansyNet/client]="TansyNet/(client/|wire/|transport/)"
  [platform/TansyNet/wire]="TansyNet/wire/"
  [platform/TansyNet/transport]="TansyNet/transport/"
)

# The servers stay strangers to one another. What the S3 server needs of the object server's folder is the catalogue, the
# calls of the host's storage, and the threads and streams that carry long bodies; nothing of the object protocol.
shared_catalogue='(ObjectStorageManager|ObjectServerSession|KeyOrder|ObjectServerStorage|ReadLease|ObjectServerBigSend|BigFileStreamMgr|StreamPieceQueue|PartUploads|PieceList|CatalogueAway)\.h'
declare -A server_strangers=(
  [src/StorageServer/ObjectServer]="StorageServer/(PicServer|S3Server)/"
  [src/StorageServer/PicServer]="StorageServer/(ObjectServer|S3Server)/"
  [src/StorageServer/S3Server]="StorageServer/(PicServer/|ObjectServer/(?!$shared_catalogue))"
)

# Parts of the module that stay strangers to one another: what the files of each may not include.
declare -A strangers=(
  [src/Common]="Storage(Server|Client)/"
  [src/StorageClient]="StorageServer/"
  [src/StorageServer]="StorageClient/"
)

# Headers that cost seconds to compile; a header that others include must not bring them along.
heavy='<(boost/(asio|beast)|regex|iostream|rapidjson|pugixml|sqlite3|CLI|toml)'

# Lines "FILE:INCLUDED" for the quoted includes of everything below the folders.
includes_of() {
  grep -rEo --include='*.h' --include='*.cpp' --include='*.inl' '^#include "[^"]+"' "$@" |
    sed -E 's/#include "([^"]+)"/\1/'
}

check_folder() {
  local folder=$1 words=" ${allowed[$1]} " file include first
  while IFS=: read -r file include; do
    first=${include%%/*}
    # A plain name is a file beside the one that includes it, or at the root of src/ or cli/.
    if [[ "$first" == "$include" ]]; then
      [[ -e "$(dirname "$file")/$include" || ("$folder" =~ ^(src|cli)$ && -e "$folder/$include") ]] ||
        complain "$file includes \"$include\", which is not beside it"
    elif [[ "$words" != *" $first "* ]]; then
      complain "$file includes \"$include\": $folder may not use $first"
    fi
  done < <(includes_of "$folder")
}

for folder in "${!allowed[@]}"; do
  check_folder "$folder"
done

for room in "${!rooms[@]}"; do
  library=${room#platform/}
  library=${library%%/*}
  while IFS=: read -r file include; do
    [[ ! "$include" =~ ^"$library"/ || "$include" =~ ^${rooms[$room]} ]] ||
      complain "$file includes \"$include\": $room may not"
  done < <(includes_of "$room")
  # The rooms are the library's own: others know its front doors only.
  while IFS=: read -r file include; do
    [[ ! "$include" =~ ^"${room#platform/}"/ ]] || complain "$file includes \"$include\", which is internal to $library"
  done < <(includes_of include src host cli)
done

for part in "${!strangers[@]}"; do
  while IFS=: read -r file include; do
    [[ ! "$include" =~ ^${strangers[$part]} ]] || complain "$file includes \"$include\": $part may not"
  done < <(includes_of "$part")
done

for part in "${!server_strangers[@]}"; do
  while IFS=: read -r file include; do
    grep -qP "^${server_strangers[$part]}" <<<"$include" && complain "$file includes \"$include\": $part may not"
  done < <(includes_of "$part")
done

while IFS= read -r circle; do
  complain "$circle"
done < <({
  find include src platform host cli \( -name '*.h' -o -name '*.cpp' -o -name '*.inl' \) -printf 'file %p\n'
  includes_of include src platform host cli | sed 's/^/use /'
} | awk -f "$checks/circles.awk")

# The module knows the standard library, OpenSSL's HMAC and Boost.System, and nothing else of the outside.
while IFS=: read -r file include; do
  case "$include" in
    openssl/hmac.h | openssl/evp.h | openssl/crypto.h | boost/system/*) ;;
    */* | *.h) complain "$file includes <$include>: the module may not" ;;
  esac
done < <(grep -rEo --include='*.h' --include='*.cpp' '^#include <[^>]+>' src include | sed -E 's/#include <([^>]+)>/\1/')

# Only posix/ and windows/ folders know the operating system; the two lines named here are about compilers.
while IFS= read -r line; do
  case "$line" in
    include/TansyCloudStorage/Export.h:* | platform/logging/*) ;;
    */posix/* | */windows/*) ;;
    *) complain "system conditional outside posix/ and windows/: $line" ;;
  esac
done < <(grep -rnE --include='*.h' --include='*.cpp' --include='*.inl' \
  '^[[:space:]]*#[[:space:]]*(el)?if.*(_WIN32|_WIN64|_MSC_VER|__linux__|__unix__|__APPLE__)' include src platform)

# MinGW's latches, barriers and semaphores look at their count before they take the lock to sleep, so a wait may never end.
# A stop callback's destructor waits for one of them.
while IFS= read -r line; do
  complain "waits of this kind may never end on Windows: $line"
done < <(grep -rnE --include='*.h' --include='*.cpp' '^#include <(latch|barrier|semaphore)>|std::stop_callback' \
  include src platform host cli tests)

# Heavy headers stay inside the folder whose sources need them.
while IFS= read -r header; do
  name=${header#platform/}
  folder=$(dirname "$header")
  users=$(grep -rlF --include='*.h' --include='*.cpp' "#include \"$name\"" include src platform host cli | grep -v "^$folder/")
  [[ -z "$users" ]] || complain "$header brings in a heavy header and is included by: $users"
done < <(grep -rlE --include='*.h' "^#include $heavy" platform src include)
if grep -rnE --include='*.h' "^#include $heavy" include src; then
  complain "the module's headers bring in the heavy headers above"
fi

((failures == 0)) || exit 1
echo "layers: every include points the right way"
