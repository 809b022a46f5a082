#!/usr/bin/env bash
# restic of the system's packages: this repository's own tree goes into a backup and comes back.
# usage: s3_restic.sh TANSY SOURCE_FOLDER
. "$(dirname "$0")/s3_common.sh"
source_folder=$2
settings=$("$tansy" --pool restic-bucket env restic)
eval "$settings"
export RESTIC_PASSWORD=test RESTIC_CACHE_DIR=$PWD/cache

mkdir tree
for name in bench cli cmake docs examples host include platform scripts src tests CMakeLists.txt README.md; do
  cp -r "$source_folder/$name" tree/
done
head -c 17000000 /dev/urandom >tree/big
restic init >/dev/null
restic backup --quiet tree
echo changed >>tree/README.md
rm tree/CMakeLists.txt
restic backup --quiet tree
expect_lines 2 bash -c 'restic snapshots --json | grep -o "\"short_id\"" '
restic restore latest --quiet --target back >/dev/null
diff -r tree back/tree
restic forget --quiet --keep-last 1 --prune >/dev/null
restic check --quiet --read-data >/dev/null
restic restore latest --quiet --target again >/dev/null
diff -r tree again/tree
echo "done"
