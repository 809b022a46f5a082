import assert from "node:assert/strict";
import { test } from "node:test";
import { Listing, keysBelow } from "../src/pure/listing.js";

// A folder of `count` entries in pages of ten.
function folder(count) {
  const asked = [];
  const fetchPage = async (next) => {
    asked.push(next);
    const from = Number(next || 0);
    const to = Math.min(count, from + 10);
    const entries = Array.from({ length: to - from }, (_, i) => ({ key: `k${from + i}` }));
    return { entries, next: to < count ? String(to) : "" };
  };
  return { fetchPage, asked };
}

test("pages follow each other to the end, each asked for once", async () => {
  const { fetchPage, asked } = folder(25);
  const listing = new Listing(fetchPage, () => {});
  await Promise.all([listing.more(), listing.more()]);
  assert.equal(listing.entries.length, 10);
  await listing.more();
  await listing.more();
  await listing.more();
  assert.equal(listing.entries.length, 25);
  assert.ok(listing.isDone);
  assert.deepEqual(asked, ["", "10", "20"]);
});

test("a row near the end of what is loaded brings the next page, one far from it does not", async () => {
  const { fetchPage } = folder(1000);
  const listing = new Listing(fetchPage, () => {});
  while (listing.entries.length < 500) {
    await listing.more();
  }
  await listing.need(100);
  assert.equal(listing.entries.length, 500);
  await listing.need(450);
  assert.equal(listing.entries.length, 510);
});

test("a page that failed is told and asked for again only when somebody wants it", async () => {
  let isBroken = true;
  const { fetchPage } = folder(5);
  const listing = new Listing(
    (next) => (isBroken ? Promise.reject(new Error("gone")) : fetchPage(next)),
    () => {},
  );
  await listing.more();
  assert.equal(listing.failure.message, "gone");
  isBroken = false;
  await listing.need(0);
  assert.equal(listing.entries.length, 0);
  await listing.more();
  assert.equal(listing.entries.length, 5);
  assert.equal(listing.failure, null);
});

test("a listing that was left shows nothing any more", async () => {
  let shown = 0;
  const { fetchPage } = folder(5);
  const listing = new Listing(fetchPage, () => ++shown);
  const loading = listing.more();
  listing.stop();
  await loading;
  assert.equal(shown, 1);
});

test("keys below a folder come whole", async () => {
  const { fetchPage } = folder(25);
  const keys = [];
  for await (const page of keysBelow(fetchPage)) {
    keys.push(...page);
  }
  assert.equal(keys.length, 25);
});
