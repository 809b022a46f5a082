import assert from "node:assert/strict";
import { createHmac, webcrypto } from "node:crypto";
import { test } from "node:test";
import { proofOf } from "../src/pure/proof.js";

globalThis.crypto ??= webcrypto; // Node.js 18 has it, but not under this name

test("the proof is the HMAC of nonce and key under the secret", async () => {
  const expected = createHmac("sha256", "sécret").update("n0nce\nthe key").digest("hex");
  assert.equal(await proofOf("sécret", "the key", "n0nce"), expected);
});
