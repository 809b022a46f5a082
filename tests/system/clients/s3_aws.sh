#!/usr/bin/env bash
# The AWS command line of the system's packages.
. "$(dirname "$0")/s3_common.sh"
make_files
settings=$("$tansy" env aws)
eval "$settings"

aws s3 mb s3://aws-bucket >/dev/null
aws s3 sync tree s3://aws-bucket/tree --only-show-errors
expect "" aws s3 sync tree s3://aws-bucket/tree
expect_lines 3 aws s3 ls s3://aws-bucket --recursive
aws s3 cp big s3://aws-bucket/big --only-show-errors
aws s3 cp s3://aws-bucket/big s3://aws-bucket/copy --only-show-errors
aws s3 cp s3://aws-bucket/copy got --only-show-errors
cmp big got
aws s3 sync s3://aws-bucket/tree back --only-show-errors
diff -r tree back
aws s3api get-object --bucket aws-bucket --key big --range bytes=100-199 part >/dev/null
cmp <(tail -c +101 big | head -c 100) part
curl -fsS -o got "$(aws s3 presign "s3://aws-bucket/tree/sub/$odd_name" --expires-in 60)"
cmp got "tree/sub/$odd_name"
refuse aws s3 rb s3://aws-bucket
rm tree/empty
aws s3 sync --delete tree s3://aws-bucket/tree --only-show-errors
expect_lines 4 aws s3 ls s3://aws-bucket --recursive
aws s3 rb --force s3://aws-bucket >/dev/null
expect "" aws s3 ls
echo "done"
