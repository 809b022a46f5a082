#!/usr/bin/env bash
# rclone of the system's packages.
. "$(dirname "$0")/s3_common.sh"
make_files
settings=$("$tansy" env rclone)
eval "$settings"
export RCLONE_CONFIG="" RCLONE_S3_UPLOAD_CUTOFF=5Mi RCLONE_S3_CHUNK_SIZE=5Mi
bucket=tansy:rclone-bucket

rclone mkdir $bucket
rclone sync tree $bucket/tree
rclone check tree $bucket/tree 2>/dev/null || fail "the digests differ"
expect_lines 3 rclone lsf -R --files-only $bucket
rclone copyto big $bucket/big
rclone copyto $bucket/big $bucket/copy
rclone copyto $bucket/copy got
cmp big got
rclone sync $bucket/tree back
diff -r tree back
cmp <(rclone cat --offset 100 --count 100 $bucket/big) <(tail -c +101 big | head -c 100)
if [[ "$RCLONE_CONFIG_TANSY_ENDPOINT" == http:* ]]; then
  curl -fsS -o got "$(rclone link --expire 60s "$bucket/tree/sub/$odd_name")"
  cmp got "tree/sub/$odd_name"
fi
rm tree/empty
rclone sync tree $bucket/tree
expect_lines 4 rclone lsf -R --files-only $bucket
refuse rclone rmdir $bucket
rclone deletefile $bucket/copy
rclone purge $bucket
expect "" rclone lsd tansy:
echo "done"
