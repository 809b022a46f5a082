import assert from "node:assert/strict";
import { test } from "node:test";
import * as parts from "../src/pure/parts.js";

const mebibyte = 1024 * 1024;

test("a plan covers the file without gaps and within the limits of S3", () => {
  for (const size of [parts.largeFrom, 16 * mebibyte + 1, 100 * mebibyte - 1, parts.mostObjectBytes]) {
    const partSize = parts.partSizeFor(size);
    const plan = parts.planParts(size, partSize);
    assert.ok(partSize >= 5 * mebibyte && plan.length <= 10000);
    assert.equal(plan[0].from, 0);
    assert.equal(plan.at(-1).to, size);
    plan.forEach((part, i) => {
      assert.equal(part.number, i + 1);
      assert.ok(part.to > part.from);
      assert.equal(part.from, i === 0 ? 0 : plan[i - 1].to);
    });
  }
});

test("parts that the server has in their whole size are not sent again", () => {
  const plan = parts.planParts(20, 8, [
    { number: 1, size: 8, etag: '"a"' },
    { number: 2, size: 7, etag: '"b"' },
    { number: 3, size: 4, etag: '"c"' },
  ]);
  assert.deepEqual(
    plan.map((part) => part.etag),
    ['"a"', "", '"c"'],
  );
  assert.equal(parts.bytesStored(plan), 12);
});

test("documents for the server carry any key as text", () => {
  assert.equal(
    parts.removalOf(["a<b>&\"'\n"]),
    "<Delete><Quiet>true</Quiet><Object><Key>a&#60;b&#62;&#38;&#34;&#39;&#10;</Key></Object></Delete>",
  );
  assert.equal(
    parts.completionOf([{ number: 1, etag: '"x"' }]),
    "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>&#34;x&#34;</ETag></Part></CompleteMultipartUpload>",
  );
  assert.ok(parts.fitsXml("照片\n.jpg"));
  assert.ok(!parts.fitsXml("bell\u0007"));
});
