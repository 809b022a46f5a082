// Builds the console's files into a folder: index.html, and a script, a style sheet, an icon and the licences, whose names carry a
// digest of what is in them, so that browsers may keep them for ever.
// usage: node build.mjs [FOLDER]      default: dist
import { build } from "esbuild";
import { createHash } from "node:crypto";
import { mkdir, readFile, readdir, rm, writeFile } from "node:fs/promises";
import path from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";

const here = path.dirname(fileURLToPath(import.meta.url));
const out = path.resolve(process.argv[2] ?? path.join(here, "dist"));
const mostBytes = 150 * 1024; // of all files together, compressed: what a phone on a slow line waits for

async function bundle() {
  const result = await build({
    entryPoints: { app: path.join(here, "src/main.jsx") },
    outdir: out,
    entryNames: "[name]-[hash]",
    bundle: true,
    minify: true,
    format: "esm",
    target: ["chrome100", "firefox100", "safari15.4"],
    jsx: "automatic",
    jsxImportSource: "preact",
    charset: "utf8",
    legalComments: "none", // licences.txt has them whole
    metafile: true,
    logLevel: "warning",
  });
  const names = Object.keys(result.metafile.outputs).map((name) => path.basename(name));
  return { script: names.find((name) => name.endsWith(".js")), style: names.find((name) => name.endsWith(".css")) };
}

// Writes a file under a name with the digest of what is in it, and gives that name.
async function writeDigested(stem, ending, content) {
  const name = `${stem}-${createHash("sha256").update(content).digest("hex").slice(0, 8)}.${ending}`;
  await writeFile(path.join(out, name), content);
  return name;
}

function page({ script, style, icon, licences }) {
  return `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>Tansy</title>
<link rel="icon" href="${icon}" type="image/svg+xml">
<link rel="license" href="${licences}">
<link rel="stylesheet" href="${style}">
<script type="module" src="${script}"></script>
</head>
<body>
<div id="app"></div>
<noscript>This page needs JavaScript. 本页面需要 JavaScript。</noscript>
</body>
</html>
`;
}

async function licenceTexts() {
  const { dependencies } = JSON.parse(await readFile(path.join(here, "package.json"), "utf8"));
  const texts = [];
  for (const name of Object.keys(dependencies)) {
    const folder = path.join(here, "node_modules", name);
    const file = (await readdir(folder)).find((entry) => /^licen[cs]e/i.test(entry));
    const { version, license } = JSON.parse(await readFile(path.join(folder, "package.json"), "utf8"));
    const text = file ? await readFile(path.join(folder, file), "utf8") : "";
    texts.push(`${name} ${version} (${license})\n\n${text.trim()}\n`);
  }
  return texts.join("\n----\n\n");
}

async function compressedSize() {
  let bytes = 0;
  for (const name of await readdir(out)) {
    bytes += gzipSync(await readFile(path.join(out, name)), { level: 9 }).length;
  }
  return bytes;
}

await rm(out, { recursive: true, force: true });
await mkdir(out, { recursive: true });
const names = await bundle();
const icon = await writeDigested("icon", "svg", await readFile(path.join(here, "icon.svg")));
const licences = await writeDigested("licences", "txt", await licenceTexts());
await writeFile(path.join(out, "index.html"), page({ ...names, icon, licences }));
const bytes = await compressedSize();
if (bytes > mostBytes) {
  console.error(`console: ${bytes} bytes compressed; the limit is ${mostBytes}`);
  process.exit(1);
}
console.log(`console: ${bytes} bytes compressed, of at most ${mostBytes}`);
