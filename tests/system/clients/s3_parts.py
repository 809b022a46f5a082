"""Uploads in parts with boto3, against a running tansyd: s3_parts.py URL ACCESS_KEY SECRET_KEY CERTIFICATE

Ends with "done" on standard output. Anything that is not as it should be ends it with an exception.
"""
import hashlib
import io
import random
import sys

import boto3
from boto3.s3.transfer import TransferConfig
from botocore.config import Config
from botocore.exceptions import ClientError

url, access_key, secret_key, certificate = sys.argv[1:]
BUCKET = "parts-bucket"
MEBIBYTE = 1 << 20
BYTES = random.Random(1).randbytes(40 * MEBIBYTE + 12345)
s3 = boto3.client("s3", endpoint_url=url, aws_access_key_id=access_key, aws_secret_access_key=secret_key,
                  region_name="us-east-1", verify=certificate if url.startswith("https") else None,
                  config=Config(signature_version="s3v4", retries={"max_attempts": 0}))


def error_of(call, **arguments):
    try:
        call(**arguments)
    except ClientError as error:
        return error.response["Error"]["Code"]
    raise AssertionError("no error")


def etag_of(bodies):
    digests = b"".join(hashlib.md5(body).digest() for body in bodies)
    return '"%s-%d"' % (hashlib.md5(digests).hexdigest(), len(bodies))


def cut(body, size):
    return [body[at:at + size] for at in range(0, len(body), size)]


def read(key, **arguments):
    return s3.get_object(Bucket=BUCKET, Key=key, **arguments)["Body"].read()


def check_object(key, body, etag):
    head = s3.head_object(Bucket=BUCKET, Key=key)
    assert head["ContentLength"] == len(body) and head["ETag"] == etag, (key, head, etag)
    assert read(key) == body, key
    for first, last in [(0, 0), (8 * MEBIBYTE - 1, 8 * MEBIBYTE), (5, len(body) - 5), (len(body) - 1, len(body) - 1)]:
        if last < len(body):
            assert read(key, Range="bytes=%d-%d" % (first, last)) == body[first:last + 1], (key, first, last)


def upload(key, bodies, order=None, **arguments):
    """Uploads parts in this order of their numbers."""
    upload_id = s3.create_multipart_upload(Bucket=BUCKET, Key=key, **arguments)["UploadId"]
    parts = {}
    for number in order or range(1, len(bodies) + 1):
        answer = s3.upload_part(Bucket=BUCKET, Key=key, UploadId=upload_id, PartNumber=number,
                                Body=bodies[number - 1])
        parts[number] = {"PartNumber": number, "ETag": answer["ETag"]}
    listed = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=upload_id)["Parts"]
    assert [part["Size"] for part in listed] == [len(body) for body in bodies], listed
    complete = {"Bucket": BUCKET, "Key": key, "UploadId": upload_id,
                "MultipartUpload": {"Parts": [parts[number] for number in sorted(parts)]}}
    first = s3.complete_multipart_upload(**complete)
    assert first["ETag"] == etag_of(bodies), first
    assert s3.complete_multipart_upload(**complete)["ETag"] == first["ETag"]


def check_transfers():
    """What boto3 does by itself with files that are large."""
    config = TransferConfig(multipart_threshold=8 * MEBIBYTE, multipart_chunksize=8 * MEBIBYTE, max_concurrency=4)
    s3.upload_fileobj(io.BytesIO(BYTES), BUCKET, "file", Config=config,
                      ExtraArgs={"ContentType": "text/x", "Metadata": {"a": "1"}})
    check_object("file", BYTES, etag_of(cut(BYTES, 8 * MEBIBYTE)))
    got = io.BytesIO()
    s3.download_fileobj(BUCKET, "file", got, Config=config)
    assert got.getvalue() == BYTES
    s3.copy({"Bucket": BUCKET, "Key": "file"}, BUCKET, "copied in parts", Config=config)
    check_object("copied in parts", BYTES, etag_of(cut(BYTES, 8 * MEBIBYTE)))
    s3.copy_object(Bucket=BUCKET, Key="copied", CopySource={"Bucket": BUCKET, "Key": "file"})
    check_object("copied", BYTES, '"%s"' % hashlib.md5(BYTES).hexdigest())
    copied = s3.head_object(Bucket=BUCKET, Key="copied")
    assert copied["ContentType"] == "text/x" and copied["Metadata"] == {"a": "1"}, copied
    s3.copy_object(Bucket=BUCKET, Key="file", CopySource={"Bucket": BUCKET, "Key": "file"},
                   MetadataDirective="REPLACE", Metadata={"b": "2"})
    assert s3.head_object(Bucket=BUCKET, Key="file")["Metadata"] == {"b": "2"}
    check_object("file", BYTES, etag_of(cut(BYTES, 8 * MEBIBYTE)))


def check_uneven_parts():
    cuts = [0, 5 * MEBIBYTE, 16 * MEBIBYTE + 1, 22 * MEBIBYTE, len(BYTES) - 1, len(BYTES)]
    bodies = [BYTES[begin:end] for begin, end in zip(cuts, cuts[1:])]
    upload("uneven", bodies, order=[5, 3, 1, 2, 4])
    check_object("uneven", BYTES, etag_of(bodies))
    for algorithm in ["CRC32", "CRC32C", "SHA1", "SHA256"]:
        try:
            upload("with " + algorithm, [BYTES[:5 * MEBIBYTE], b"tail"], ChecksumAlgorithm=algorithm)
        except ImportError:
            continue  # this boto3 cannot compute it


def check_uploads():
    ids = [s3.create_multipart_upload(Bucket=BUCKET, Key=key)["UploadId"] for key in ["a/1", "a/2", "b"]]
    listed = s3.list_multipart_uploads(Bucket=BUCKET)["Uploads"]
    assert [(item["Key"], item["UploadId"]) for item in listed] == list(zip(["a/1", "a/2", "b"], ids)), listed
    grouped = s3.list_multipart_uploads(Bucket=BUCKET, Delimiter="/")
    assert [item["Prefix"] for item in grouped["CommonPrefixes"]] == ["a/"], grouped
    part = {"Bucket": BUCKET, "Key": "b", "UploadId": ids[2], "PartNumber": 1}
    etag = s3.upload_part(Body=b"small", **part)["ETag"]
    last = s3.upload_part(Body=b"last", **dict(part, PartNumber=2))["ETag"]
    assert error_of(s3.complete_multipart_upload, Bucket=BUCKET, Key="b", UploadId=ids[2], MultipartUpload={
        "Parts": [{"PartNumber": 1, "ETag": etag}, {"PartNumber": 2, "ETag": last}]}) == "EntityTooSmall"
    assert error_of(s3.complete_multipart_upload, Bucket=BUCKET, Key="b", UploadId=ids[2], MultipartUpload={
        "Parts": [{"PartNumber": 2, "ETag": etag}]}) == "InvalidPart"
    for key, upload_id in zip(["a/1", "a/2", "b"], ids):
        s3.abort_multipart_upload(Bucket=BUCKET, Key=key, UploadId=upload_id)
        assert error_of(s3.list_parts, Bucket=BUCKET, Key=key, UploadId=upload_id) == "NoSuchUpload"
    assert error_of(s3.upload_part, Body=b"x", **part) == "NoSuchUpload"


s3.create_bucket(Bucket=BUCKET)
check_transfers()
check_uneven_parts()
check_uploads()
for item in s3.list_objects_v2(Bucket=BUCKET)["Contents"]:
    s3.delete_object(Bucket=BUCKET, Key=item["Key"])
s3.delete_bucket(Bucket=BUCKET)
print("done")
