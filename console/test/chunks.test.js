import assert from "node:assert/strict";
import { test } from "node:test";
import { inChunks } from "../src/pure/chunks.js";

test("a list is cut by count and by size, and nothing is lost", () => {
  const cut = (values, ...limits) => [...inChunks(values, (value) => value, ...limits)];
  assert.deepEqual(cut([], 2, 10), []);
  assert.deepEqual(cut([1, 1, 1], 2, 10), [[1, 1], [1]]);
  assert.deepEqual(cut([4, 4, 4, 99, 1], 9, 10), [[4, 4], [4], [99], [1]]);
});
