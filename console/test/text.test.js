import assert from "node:assert/strict";
import { readFileSync, readdirSync } from "node:fs";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { setLanguage, t, texts } from "../src/text.js";

const sources = fileURLToPath(new URL("../src/", import.meta.url));
const names = (text) => [...text.matchAll(/\{(\w+)/g)].map((match) => match[1]).sort();

function allSources(folder) {
  return readdirSync(folder, { withFileTypes: true })
    .map((entry) =>
      entry.isDirectory()
        ? allSources(`${folder}${entry.name}/`)
        : entry.name === "text.js"
          ? ""
          : readFileSync(folder + entry.name, "utf8"),
    )
    .join("\n");
}

test("each text is there in both languages, with the same values", () => {
  for (const [name, pair] of Object.entries(texts)) {
    assert.equal(pair.length, 2, name);
    assert.ok(pair[0] && pair[1], name);
    assert.deepEqual(names(pair[0]), names(pair[1]), name);
  }
});

test("each text that the sources name is there, and none is left over", () => {
  const code = allSources(sources);
  const quoted = new Set([...code.matchAll(/["`]([a-zA-Z]+(?:\.[a-zA-Z]+)+)["`]/g)].map((match) => match[1]));
  const families = [...code.matchAll(/`([a-zA-Z]+(?:\.[a-zA-Z]+)*\.)\$\{/g)].map((match) => match[1]);
  for (const match of code.matchAll(/\bt\("([^"]+)"/g)) {
    assert.ok(match[1] in texts, `missing: ${match[1]}`);
  }
  for (const name of Object.keys(texts)) {
    assert.ok(quoted.has(name) || families.some((family) => name.startsWith(family)), `nobody shows: ${name}`);
  }
});

test("numbers take the right word", () => {
  setLanguage("en");
  assert.equal(t("objects.selected", { n: 1 }), "1 entry selected");
  assert.equal(t("objects.selected", { n: 1234 }).replace(/[,.]/, ""), "1234 entries selected");
  setLanguage("zh");
  assert.equal(t("objects.selected", { n: 1 }), "已选择 1 项");
  setLanguage("en");
});

test("values are put in as they are, never as patterns", () => {
  assert.equal(t("buckets.made", { name: "$& {n} <b>" }), "The bucket “$& {n} <b>” is there.");
});
