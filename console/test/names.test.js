import assert from "node:assert/strict";
import { test } from "node:test";
import * as names from "../src/pure/names.js";

test("marks that turn or hide text are shown as their numbers", () => {
  assert.equal(names.visible("invoice\u202efdp.exe"), "invoice⟨U+202E⟩fdp.exe");
  assert.equal(names.visible("a\u0007b\ufeffc\u200fd"), "a⟨U+0007⟩b⟨U+FEFF⟩c⟨U+200F⟩d");
  assert.equal(names.visible("照片 <b>&\"'.jpg"), "照片 <b>&\"'.jpg");
});

test("keys are taken apart at slashes", () => {
  assert.equal(names.lastPart("2026/cat.jpg"), "cat.jpg");
  assert.equal(names.lastPart("photos/2026/"), "2026");
  assert.equal(names.lastPart("cat.jpg"), "cat.jpg");
  assert.equal(names.parentOf("a/b/c"), "a/b/");
  assert.equal(names.parentOf("a/b/"), "a/");
  assert.equal(names.parentOf("a"), "");
  assert.deepEqual(names.crumbs("a//b/c"), [
    { name: "a", prefix: "a/" },
    { name: "", prefix: "a//" },
    { name: "b", prefix: "a//b/" },
  ]);
});

test("keys that the server would refuse are told apart", () => {
  assert.equal(names.problemOfKey("cat.jpg"), "");
  assert.equal(names.problemOfKey(""), "name.empty");
  assert.equal(names.problemOfKey("folder/"), "name.empty");
  assert.equal(names.problemOfKey("a".repeat(1024)), "");
  assert.equal(names.problemOfKey("照".repeat(342)), "name.long");
  assert.equal(names.problemOfKey("half \ud83d"), "name.broken");
});

test("names of buckets follow the rules of S3", () => {
  for (const good of ["abc", "my-photos.2026", "a".repeat(63)]) {
    assert.equal(names.problemOfBucket(good), "", good);
  }
  for (const bad of ["", "ab", "Photos", "-abc", "abc-", "a..b", "192.168.1.1", "a_b", "a".repeat(64), "<b>"]) {
    assert.equal(names.problemOfBucket(bad), "bucket.rules", bad);
  }
});

test("a free name is found beside those that are taken", () => {
  const taken = new Set(["a/cat (2).jpg"]);
  assert.equal(
    names.freeName("a/cat.jpg", (key) => taken.has(key)),
    "a/cat (3).jpg",
  );
  assert.equal(
    names.freeName("a.b/README", () => false),
    "a.b/README (2)",
  );
  assert.equal(
    names.freeName(".profile", () => false),
    ".profile (2)",
  );
});

test("the kind of a file is told by its ending", () => {
  assert.equal(names.kindOf("a/CAT.JPG"), "picture");
  assert.equal(names.kindOf("a.jpg/"), "folder");
  assert.equal(names.kindOf("a.jpg/notes"), "file");
  assert.equal(names.kindOf("jpg"), "file");
  assert.equal(names.previewType("a.html"), "");
  assert.equal(names.previewType("a.pdf"), "application/pdf");
  assert.equal(names.previewType("a.svg"), "image/svg+xml");
});
