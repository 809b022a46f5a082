"""What programs do with boto3, against a running tansyd: s3_boto3.py URL ACCESS_KEY SECRET_KEY CERTIFICATE

Ends with "done" on standard output. Anything that is not as it should be ends it with an exception.
"""
import hashlib
import random
import ssl
import sys
import urllib.request

import boto3
from botocore.config import Config
from botocore.exceptions import ClientError

url, access_key, secret_key, certificate = sys.argv[1:]
verify = certificate if url.startswith("https") else None
BUCKET = "boto-bucket"
KEYS = ["plain.txt", "photos/2026/a b.jpg", "\u00fc/\u00f1+%&=?.txt", "a//b/../c", "x" * 1024]
BYTES = random.Random(1).randbytes(21 << 20)


def client(**settings):
    config = Config(signature_version="s3v4", retries={"max_attempts": 0}, **settings)
    return boto3.client("s3", endpoint_url=url, aws_access_key_id=access_key, aws_secret_access_key=secret_key,
                        region_name="us-east-1", verify=verify, config=config)


def error_of(call, **arguments):
    try:
        call(**arguments)
    except ClientError as error:
        return error.response["Error"]["Code"]
    raise AssertionError("no error")


def check_object(s3, key, body):
    tag = '"%s"' % hashlib.md5(body).hexdigest()
    put = s3.put_object(Bucket=BUCKET, Key=key, Body=body, ContentType="text/x-y", Metadata={"a": "1"})
    assert put["ETag"] == tag, (key, put)
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert got["Body"].read() == body and got["ETag"] == tag, key
    assert got["ContentType"] == "text/x-y" and got["Metadata"] == {"a": "1"}, got
    assert s3.head_object(Bucket=BUCKET, Key=key)["ContentLength"] == len(body), key


def check_objects(s3):
    for key in KEYS:
        check_object(s3, key, b"hello " + key.encode())
    for size in [0, 1, 100000, 9 << 20, (10 << 20) + 1, len(BYTES)]:
        check_object(s3, "size-%d" % size, BYTES[:size])
    key = "size-%d" % len(BYTES)
    part = s3.get_object(Bucket=BUCKET, Key=key, Range="bytes=5-14")
    assert part["Body"].read() == BYTES[5:15] and part["ResponseMetadata"]["HTTPStatusCode"] == 206
    assert error_of(s3.get_object, Bucket=BUCKET, Key=key, Range="bytes=%d-" % len(BYTES)) == "InvalidRange"
    assert error_of(s3.get_object, Bucket=BUCKET, Key="none") == "NoSuchKey"


def check_listings(s3):
    keys = []
    for operation in ["list_objects_v2", "list_objects"]:
        pages = s3.get_paginator(operation).paginate(Bucket=BUCKET, PaginationConfig={"PageSize": 3})
        keys = [item["Key"] for page in pages for item in page.get("Contents", [])]
        assert keys == sorted(keys, key=str.encode) and set(KEYS) <= set(keys), (operation, keys)
    grouped = s3.list_objects_v2(Bucket=BUCKET, Delimiter="/")
    assert [item["Prefix"] for item in grouped["CommonPrefixes"]] == ["a/", "photos/", "\u00fc/"], grouped
    return keys


def check_versions(s3, keys):
    listed = []
    for page in s3.get_paginator("list_object_versions").paginate(Bucket=BUCKET, PaginationConfig={"PageSize": 3}):
        assert "DeleteMarkers" not in page, page
        listed += [(version["Key"], version["VersionId"], version["IsLatest"]) for version in page["Versions"]]
    assert listed == [(key, "null", True) for key in keys], listed
    assert s3.get_object(Bucket=BUCKET, Key=KEYS[0], VersionId="null")["ContentLength"] == 6 + len(KEYS[0])


def check_attributes(s3):
    told = s3.get_object_attributes(Bucket=BUCKET, Key=KEYS[1], ObjectAttributes=["ETag", "ObjectSize", "StorageClass"])
    body = b"hello " + KEYS[1].encode()
    assert told["ETag"] == hashlib.md5(body).hexdigest() and told["ObjectSize"] == len(body), told
    assert told["StorageClass"] == "STANDARD", told
    part = s3.get_object(Bucket=BUCKET, Key=KEYS[1], PartNumber=1)
    assert part["Body"].read() == body and part["ResponseMetadata"]["HTTPStatusCode"] == 206
    assert error_of(s3.get_object, Bucket=BUCKET, Key=KEYS[1], PartNumber=2) == "InvalidPartNumber"


def check_link_to_upload(s3):
    params = {"Bucket": BUCKET, "Key": KEYS[1], "Metadata": {"title": "t"}, "ContentType": "text/x-z"}
    link = s3.generate_presigned_url("put_object", Params=params, ExpiresIn=60)
    context = ssl.create_default_context(cafile=certificate) if verify else None
    headers = {"Content-Type": "text/x-z", "x-amz-meta-title": "t"}
    request = urllib.request.Request(link, data=b"hello " + KEYS[1].encode(), headers=headers, method="PUT")
    with urllib.request.urlopen(request, context=context) as answer:
        assert answer.status == 200
    assert s3.head_object(Bucket=BUCKET, Key=KEYS[1])["Metadata"] == {"title": "t"}


def check_link(s3):
    link = s3.generate_presigned_url("get_object", Params={"Bucket": BUCKET, "Key": KEYS[1]}, ExpiresIn=60)
    context = ssl.create_default_context(cafile=certificate) if verify else None
    with urllib.request.urlopen(link, context=context) as answer:
        assert answer.read() == b"hello " + KEYS[1].encode()


for settings in [{}, {"s3": {"payload_signing_enabled": True}}]:
    s3 = client(**settings)
    s3.create_bucket(Bucket=BUCKET)
    assert BUCKET in [bucket["Name"] for bucket in s3.list_buckets()["Buckets"]]
    check_objects(s3)
    keys = check_listings(s3)
    check_link(s3)
    check_link_to_upload(s3)
    check_versions(s3, keys)
    check_attributes(s3)
    assert error_of(s3.delete_bucket, Bucket=BUCKET) == "BucketNotEmpty"
    deleted = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": key} for key in keys[1:]]})
    assert len(deleted["Deleted"]) == len(keys) - 1
    s3.delete_object(Bucket=BUCKET, Key=keys[0])
    assert s3.list_objects_v2(Bucket=BUCKET)["KeyCount"] == 0
    s3.delete_bucket(Bucket=BUCKET)
    assert error_of(s3.head_bucket, Bucket=BUCKET) == "404"
print("done")
