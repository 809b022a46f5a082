#!/usr/bin/env bash
# s3cmd of the system's packages.
. "$(dirname "$0")/s3_common.sh"
make_files
"$tansy" env s3cmd >settings
client=(s3cmd --config "$PWD/settings" --no-progress)

"${client[@]}" mb s3://s3cmd-bucket >/dev/null
"${client[@]}" sync tree/ s3://s3cmd-bucket/tree/ >/dev/null
expect "" "${client[@]}" sync tree/ s3://s3cmd-bucket/tree/
expect_lines 3 "${client[@]}" ls --recursive s3://s3cmd-bucket
"${client[@]}" put --multipart-chunk-size-mb=5 big s3://s3cmd-bucket/big >/dev/null
"${client[@]}" cp s3://s3cmd-bucket/big s3://s3cmd-bucket/copy >/dev/null
"${client[@]}" get s3://s3cmd-bucket/copy got >/dev/null
cmp big got
"${client[@]}" sync s3://s3cmd-bucket/tree/ back/ >/dev/null
diff -r tree back
curl -fsS -o got "$("${client[@]}" signurl "s3://s3cmd-bucket/tree/sub/middle" +60)"
cmp got tree/sub/middle
"${client[@]}" setacl --acl-private s3://s3cmd-bucket/big >/dev/null
"${client[@]}" info s3://s3cmd-bucket/big >/dev/null
rm tree/empty
"${client[@]}" sync --delete-removed tree/ s3://s3cmd-bucket/tree/ >/dev/null
expect_lines 4 "${client[@]}" ls --recursive s3://s3cmd-bucket
refuse "${client[@]}" rb s3://s3cmd-bucket
"${client[@]}" del --recursive --force s3://s3cmd-bucket >/dev/null
"${client[@]}" rb s3://s3cmd-bucket >/dev/null
expect "" "${client[@]}" ls
echo "done"
