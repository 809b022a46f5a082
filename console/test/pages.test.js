import assert from "node:assert/strict";
import { test } from "node:test";
import * as format from "../src/pure/format.js";
import { hashOf, parseRoute } from "../src/pure/route.js";
import { mostPixels, scrollTo, visibleRows } from "../src/pure/window.js";

test("sizes and times are short", () => {
  assert.equal(format.bytes(0), "0 B");
  assert.equal(format.bytes(1023), "1023 B");
  assert.equal(format.bytes(1536), "1.5 KiB");
  assert.equal(format.bytes(1024 * 1024 - 1), "1.0 MiB");
  assert.equal(format.bytes(undefined), "–");
  assert.equal(format.duration(0), "0 s");
  assert.equal(format.duration(3 * 86400 + 4 * 3600 + 59), "3 d 4 h");
  assert.equal(format.duration(86400 + 5), "1 d");
  assert.equal(format.milliseconds(0.25), "0.3 ms");
});

test("times are shown in the zone of the reader", () => {
  assert.match(format.moment("2026-11-22T23:30:00Z", "en-GB", "Asia/Shanghai"), /23 Nov 2026/);
  assert.match(format.moment("2026-11-22T23:30:00Z", "en-GB", "UTC"), /22 Nov 2026/);
  assert.equal(format.moment("nothing", "en"), "–");
});

test("an address leads to the page that it was made for", () => {
  for (const [bucket, prefix] of [
    ["photos", ""],
    ["photos", "2026/"],
    ["photos", "a b/%2F/照片/"],
    ["photos", "<b>/?#/"],
    ["photos", "//"],
  ]) {
    assert.deepEqual(parseRoute(hashOf("objects", bucket, prefix)), { page: "objects", bucket, prefix }, prefix);
  }
  assert.deepEqual(parseRoute(hashOf("log")), { page: "log", bucket: "", prefix: "" });
  assert.equal(parseRoute("#/nowhere").page, "overview");
  assert.equal(parseRoute("#/objects/%E0%A4%A").bucket, "%E0%A4%A");
});

test("only the rows on the screen are drawn, and each can be reached", () => {
  for (const rows of [0, 1, 10, 1000, 1_000_000]) {
    const { height } = visibleRows(rows, 40, 0, 600);
    assert.ok(height <= mostPixels);
    const end = visibleRows(rows, 40, Math.max(0, height - 600), 600);
    assert.equal(end.first + end.count, rows);
    assert.ok(end.count <= 600 / 40 + 14);
    assert.equal(visibleRows(rows, 40, 0, 600).first, 0);
  }
});

test("a row that is scrolled to is on the screen", () => {
  for (const row of [0, 7, 500_000, 999_999]) {
    const top = scrollTo(row, 1_000_000, 40, 0, 600);
    const seen = visibleRows(1_000_000, 40, top, 600, 0);
    assert.ok(row >= seen.first && row < seen.first + seen.count, `${row}`);
  }
  assert.equal(scrollTo(3, 10, 40, 0, 600), 0);
});
