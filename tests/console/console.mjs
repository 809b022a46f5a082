// The console in a real browser, on a real tansyd. The tests follow each other on one server, as a person's day does.
// Environment: TANSYD, TANSY (programs), CONSOLE_BUILD (folder in which the console was built), CONSOLE_PICTURES (folder for the pictures of the
// README; none are made without it).
import assert from "node:assert/strict";
import { createHash } from "node:crypto";
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import path from "node:path";
import { after, afterEach, before, test } from "node:test";
import { axeSource, findBrowser, launch, newProfile } from "./support/browser.mjs";
import { noise, pdf, png, wav } from "./support/samples.mjs";
import { ask, makeKey, put, putMany, read } from "./support/storage.mjs";
import { keys, Tansyd } from "./support/tansyd.mjs";

const skipped = 77; // what CTest is told to take for a skipped test
const program = findBrowser();
if (!program) {
  console.log("no Chromium is installed (Debian: apt-get install chromium): the console was not tried in a browser");
  process.exit(skipped);
}

const pages = ["overview", "objects", "buckets", "unfinished", "requests", "check", "log", "settings"];
const mebibyte = 1024 * 1024;
const many = 10_500;
let server;
let browser;
let folder;
let profile; // the person who works in most of the tests
let page;

before(async () => {
  folder = mkdtempSync(path.join(tmpdir(), "tansy-console-files-"));
  server = await Tansyd.start();
  browser = await launch(program);
  profile = await newProfile(browser);
  page = await newPage(profile);
});

after(async () => {
  await browser?.close();
  await server?.remove();
  rmSync(folder, { recursive: true, force: true });
});

// Whatever a test does, the page neither reports errors nor leaves this machine. Errors that a test provokes are taken out by it.
afterEach(() => {
  const errors = profile.seen.errors.splice(0);
  assert.deepEqual(errors, []);
  assert.deepEqual([...profile.seen.hosts], ["127.0.0.1"]);
});

async function newPage({ context }) {
  const opened = await context.newPage();
  opened.on("dialog", (dialog) => dialog.accept());
  return opened;
}

function expectErrors(pattern) {
  const other = profile.seen.errors.filter((error) => !pattern.test(error));
  const found = profile.seen.errors.length - other.length;
  profile.seen.errors = other;
  return found;
}

async function signIn(where, secret = keys.secret, access = keys.access) {
  await where.getByLabel("Access key").fill(access);
  await where.getByLabel("Secret key", { exact: true }).fill(secret);
  await where.getByRole("button", { name: "Sign in" }).click();
}

async function open(name) {
  await page.goto(`${server.url}#/${name}`);
}

const row = (name) => page.getByRole("row").filter({ has: page.getByText(name, { exact: true }) });
const notice = (words) => page.locator(".notices").getByText(words);
const dialogButton = (name) => page.getByRole("dialog").getByRole("button", { name });

async function accessible(where, what) {
  await where.evaluate(axeSource);
  const violations = await where.evaluate(async () => {
    const { violations: found } = await globalThis.axe.run(document);
    return found.map(({ id, nodes }) => `${id}: ${nodes.map((node) => node.html.slice(0, 200)).join(" ")}`);
  });
  assert.deepEqual(violations, [], what);
}

async function choose(button, files) {
  const [chooser] = await Promise.all([page.waitForEvent("filechooser"), button.click()]);
  await chooser.setFiles(files);
}

const uploaded = (count) => page.getByRole("region", { name: "Uploads" }).getByText(`${count} of ${count} done`).waitFor();

test("a wrong key is refused in words, and the right one opens the console", async () => {
  await page.goto(server.url);
  await accessible(page, "sign-in page");
  await signIn(page, "not the secret");
  await page.getByRole("alert").getByText("The keys are not right.").waitFor();
  assert.equal(expectErrors(/401/), 1);
  assert.equal(await page.getByRole("navigation").count(), 0);
  await signIn(page);
  await page.getByRole("heading", { name: "Overview" }).waitFor();
  await page.reload();
  await page.getByRole("heading", { name: "Overview" }).waitFor();
  const kept = await page.evaluate(() => JSON.stringify([document.cookie, { ...localStorage }, { ...sessionStorage }]));
  assert.ok(!kept.includes(keys.secret) && !kept.includes("tansy_session"), kept);
});

test("the secret is never sent", async () => {
  const other = await newProfile(browser);
  const sent = [];
  other.context.on("request", (request) =>
    sent.push(request.url() + (request.postData() ?? "") + JSON.stringify(request.headers())),
  );
  const another = await newPage(other);
  await another.goto(server.url);
  await signIn(another);
  await another.getByRole("heading", { name: "Overview" }).waitFor();
  assert.ok(sent.length > 3);
  assert.ok(sent.every((text) => !text.includes(keys.secret)));
  await another.getByRole("button", { name: "Sign out" }).click();
  await another.getByRole("button", { name: "Sign in" }).waitFor();
  await another.reload();
  await another.getByRole("button", { name: "Sign in" }).waitFor();
  await other.context.close();
});

test("empty pages say the next step", async () => {
  await open("objects");
  await page.getByText("There is no bucket yet").waitFor();
  await page.getByRole("link", { name: "New bucket" }).click();
  await page.getByText("There is no bucket yet").waitFor();
  await open("unfinished");
  await page.getByText("No upload is unfinished").waitFor();
});

test("a bucket is made, named by the rules, and removed when it is empty", async () => {
  await open("buckets");
  await page.getByRole("button", { name: "New bucket" }).first().click();
  await page.getByLabel("Name of the bucket").fill("Not Good");
  await dialogButton("Make bucket").click();
  await page.getByRole("alert").getByText("3 to 63 small letters").waitFor();
  await page.getByLabel("Name of the bucket").fill("holiday");
  await page.keyboard.press("Enter");
  await row("holiday").waitFor();
  await put(server, "holiday", "kept.txt", "kept");
  await page.getByRole("button", { name: "Remove holiday" }).click();
  await dialogButton("Remove bucket").click();
  await page.getByRole("alert").getByText("This bucket still holds files.").waitFor();
  assert.equal(expectErrors(/409/), 1);
  assert.equal((await read(server, "holiday", "kept.txt")).toString(), "kept");
  await dialogButton("Cancel").click();
  await (await ask(server, "DELETE", "holiday", "kept.txt")).arrayBuffer();
  await page.getByRole("button", { name: "Remove holiday" }).click();
  await dialogButton("Remove bucket").click();
  await page.getByText("There is no bucket yet").waitFor();
});

test("names with markup and marks that turn text show as text", async () => {
  await (await ask(server, "PUT", "photos")).arrayBuffer();
  await open("objects/photos");
  await page.getByText("Nothing here yet").waitFor();
  const names = ["<img src=x onerror=alert(1)>.txt", "photo\u202Egnp.exe", "照片 一.txt", "a&amp;b.txt", "مرحبا.txt"];
  await choose(
    page.getByRole("button", { name: "Upload files" }),
    names.map((name) => ({ name, mimeType: "text/plain", buffer: Buffer.from(`in ${name}`) })),
  );
  await uploaded(names.length);
  for (const shown of ["<img src=x onerror=alert(1)>.txt", "photo⟨U+202E⟩gnp.exe", "照片 一.txt", "a&amp;b.txt", "مرحبا.txt"]) {
    await row(shown).waitFor();
  }
  assert.equal(await page.locator("img").count(), 0);
  assert.equal((await read(server, "photos", names[1])).toString(), `in ${names[1]}`);
  await row("<img src=x onerror=alert(1)>.txt").getByText(".txt").click();
  await page.getByRole("dialog").getByText("in <img src=x onerror=alert(1)>.txt").waitFor();
  await accessible(page, "preview of a text");
  await page.keyboard.press("Escape");
  await page.getByRole("button", { name: "Clear the list" }).click();
});

test("a folder goes on after the page was reloaded in the middle of it", async () => {
  const trip = path.join(folder, "trip");
  mkdirSync(path.join(trip, "day 1"), { recursive: true });
  const film = noise(40 * mebibyte + 17, "film");
  writeFileSync(path.join(trip, "film.bin"), film);
  for (let i = 1; i <= 6; ++i) {
    writeFileSync(path.join(trip, "day 1", `${i}.txt`), `picture ${i}`);
  }

  // From the third part on, nothing arrives.
  const sentParts = [];
  const isHeld = { value: true };
  await page.route(/partNumber=/, async (route) => {
    const number = Number(new URL(route.request().url()).searchParams.get("partNumber"));
    if (route.request().method() === "PUT" && number > 2 && isHeld.value) {
      return;
    }
    sentParts.push(number);
    await route.continue().catch(() => {});
  });
  await choose(page.getByRole("button", { name: "Upload a folder" }), trip);
  await page.getByText("6 of 7 done").waitFor();
  const tray = page.getByRole("region", { name: "Uploads" });
  await tray.getByText(/^(16\.\d|\d\d\.\d) MiB of 40\.0 MiB$/).waitFor();
  while (new Set(sentParts).size < 2) {
    await page.waitForResponse(/partNumber=/);
  }
  await open("unfinished");
  await row("trip/film.bin").waitFor();
  await page.reload();
  await tray.getByText("1 upload was interrupted.").waitFor();
  await accessible(page, "interrupted uploads");

  isHeld.value = false;
  const before = [...sentParts];
  const other = path.join(folder, "other");
  mkdirSync(other);
  writeFileSync(path.join(other, "film.bin"), "another film");
  await choose(tray.getByRole("button", { name: "Choose the folder" }), other);
  await notice("None of these files").waitFor();
  await page.getByRole("button", { name: "Dismiss notice" }).click();
  await choose(tray.getByRole("button", { name: "Choose the folder" }), trip);
  await uploaded(1);
  await page.unroute(/partNumber=/);
  const later = sentParts.slice(before.length);
  assert.deepEqual(
    [...later].sort(),
    [3, 4, 5, 6].filter((number) => number <= Math.ceil(film.length / (8 * mebibyte))),
    "parts after the reload",
  );

  const digest = (bytes) => createHash("sha256").update(bytes).digest("hex");
  assert.equal(digest(await read(server, "photos", "trip/film.bin")), digest(film));
  assert.equal((await read(server, "photos", "trip/day 1/6.txt")).toString(), "picture 6");
  await page.getByText("No upload is unfinished").waitFor();
  await page.getByRole("button", { name: "Clear the list" }).click();
  assert.deepEqual(await page.evaluate(() => Object.keys(localStorage).filter((name) => name.startsWith("tansy-upload"))), []);
});

test("an upload is paused and goes on, and a name that is taken is asked about", async () => {
  await open("objects/photos/trip/");
  const isHeld = { value: true };
  await page.route(/partNumber=/, (route) => (isHeld.value ? undefined : route.continue()));
  const upload = page.getByRole("button", { name: "Upload files" });
  await choose(upload, { name: "big.bin", mimeType: "", buffer: noise(20 * mebibyte, "big") });
  const tray = page.getByRole("region", { name: "Uploads" });
  await tray.getByRole("button", { name: "Pause big.bin" }).click();
  await tray.getByText("paused at").waitFor();
  isHeld.value = false;
  await tray.getByRole("button", { name: "Go on with big.bin" }).click();
  await uploaded(1);
  await page.unroute(/partNumber=/);
  assert.equal((await read(server, "photos", "trip/big.bin")).length, 20 * mebibyte);
  await page.getByRole("button", { name: "Clear the list" }).click();

  await put(server, "photos", "trip/note.txt", "first");
  await choose(upload, { name: "note.txt", mimeType: "text/plain", buffer: Buffer.from("second") });
  await dialogButton("Keep both").click();
  await row("note (2).txt").waitFor();
  assert.equal(expectErrors(/412/), 1);
  assert.equal((await read(server, "photos", "trip/note.txt")).toString(), "first");
  assert.equal((await read(server, "photos", "trip/note (2).txt")).toString(), "second");
  await page.getByRole("button", { name: "Clear the list" }).click();
});

test("files that are dropped on the page are uploaded", async () => {
  await open("objects/photos/dropped/");
  await page.getByText("Nothing here yet").waitFor();
  const dropped = await page.evaluateHandle(() => {
    const transfer = new DataTransfer();
    transfer.items.add(new File(["from outside"], "dropped.txt", { type: "text/plain" }));
    return transfer;
  });
  await page.dispatchEvent("#content", "dragover", { dataTransfer: dropped });
  await page.getByText("Drop to upload to dropped").waitFor();
  await page.dispatchEvent("#content", "drop", { dataTransfer: dropped });
  await row("dropped.txt").waitFor();
  assert.equal((await read(server, "photos", "dropped/dropped.txt")).toString(), "from outside");
  await page.getByRole("button", { name: "Clear the list" }).click();
});

test("a shared link opens in another browser, and only as it was signed", async () => {
  await put(server, "photos", "trip/cover.png", png(640, 420, 0.3));
  await open("objects/photos/trip/");
  await page.getByRole("button", { name: "Reload the list" }).click();
  await row("cover.png").getByText("cover.png").click();
  await page.getByRole("dialog").locator("img").waitFor();
  await page.waitForFunction(() => document.querySelector("dialog img").naturalWidth === 640);
  await dialogButton("Share").click();
  await page.getByText("7 days").click();
  await page.getByText(/It ends on/).waitFor();
  await page.waitForFunction(() => document.querySelector("textarea").value.includes("X-Amz-Expires=604800"));
  const url = await page.getByLabel("Link", { exact: true }).inputValue();
  await page.getByRole("img", { name: "QR code of the link" }).waitFor();
  await accessible(page, "share dialog");
  await page.keyboard.press("Escape");

  const stranger = await newProfile(browser);
  const other = await newPage(stranger);
  const answer = await other.goto(url);
  assert.equal(answer.status(), 200);
  assert.equal(await other.evaluate(() => document.images[0].naturalWidth), 640);
  assert.equal((await other.goto(url.replace("cover.png", "note.txt"))).status(), 403);
  assert.equal((await other.goto(url.replace("604800", "604799"))).status(), 403);
  await stranger.context.close();
});

test("sound and pages are shown, and a file that is none says so", async () => {
  await put(server, "photos", "show/tone.wav", wav());
  await put(server, "photos", "show/page.pdf", pdf);
  await put(server, "photos", "show/broken.png", "no picture");
  await open("objects/photos/show/");
  await row("tone.wav").getByText("tone.wav").click();
  await page.waitForFunction(() => Math.round(document.querySelector("dialog audio")?.duration) === 1);
  await page.getByRole("button", { name: "Previous file" }).click();
  await page.getByRole("dialog").locator("iframe").waitFor();
  await page.getByRole("button", { name: "Previous file" }).click();
  await page.getByText("This file cannot be shown.").waitFor();
  await page.keyboard.press("Escape");
});

test("the keyboard alone renames, selects and deletes", async () => {
  for (const name of ["a.txt", "b.txt", "c.txt", "folder/d.txt", "folder/deep/e.txt"]) {
    await put(server, "photos", `keys/${name}`, name);
  }
  await open("objects/photos/keys/");
  await row("a.txt").waitFor();
  await page.getByRole("grid").focus();
  await page.keyboard.press("F2");
  await page.getByLabel("New name").fill("b.txt");
  await page.keyboard.press("Enter");
  await page.getByRole("alert").getByText("A file of this name is there already.").waitFor();
  await page.getByLabel("New name").fill("first.txt");
  await page.keyboard.press("Enter");
  await row("first.txt").waitFor();
  assert.equal((await read(server, "photos", "keys/first.txt")).toString(), "a.txt");
  assert.equal(await read(server, "photos", "keys/a.txt"), null);

  await page.getByRole("grid").focus();
  await page.keyboard.press("Home");
  await page.keyboard.press("Shift+End");
  await page.getByText("4 entries selected").first().waitFor();
  await page.keyboard.press("Home");
  await page.keyboard.press("Control+a");
  await page.keyboard.press("Delete");
  await dialogButton("Delete").click();
  await notice("5 files are deleted.").waitFor();
  await page.getByText("Nothing here yet").waitFor();
  assert.equal(await read(server, "photos", "keys/folder/deep/e.txt"), null);

  await page.locator("body").press("8");
  await page.getByRole("heading", { name: "Settings" }).waitFor();
  await page.keyboard.press("?");
  await page.getByRole("dialog", { name: "Keyboard shortcuts" }).waitFor();
  await page.keyboard.press("Escape");
});

test("a check is begun, and its result is shown", async () => {
  await open("check");
  await page.getByText("Nothing was checked since the start").waitFor();
  await page.getByRole("button", { name: "Check now" }).click();
  await page.getByText("All files are whole").waitFor();
  await page.getByText(/^check: \d+ rows/).waitFor();
  await page.route(/api\/check/, async (route) => {
    const check = await (await route.fetch()).json();
    await route.fulfill({
      json: { ...check, result: "findings", findings: 1200, lines: ["missing: <b>a.txt"], summary: "1200 findings" },
    });
  });
  await page.getByText("1,200 findings", { exact: true }).waitFor();
  await page.getByText("missing: <b>a.txt").waitFor();
  await page.getByText("and 1,199 more").waitFor();
  await accessible(page, "findings of a check");
  await page.unroute(/api\/check/);
});

test("what is wrong is said in words", async () => {
  await page.route(/api\/overview/, async (route) => {
    const answer = await route.fetch();
    const overview = await answer.json();
    await route.fulfill({
      json: {
        ...overview,
        ready: false,
        parts: { ...overview.parts, database: "no answer for 12 seconds" },
        certificate_end: overview.time - 1,
      },
    });
  });
  await open("overview");
  await page.getByText("2 things need your attention").waitFor();
  await page.getByText("The part “database” is in trouble: no answer for 12 seconds.").waitFor();
  await page.getByText("The HTTPS certificate has ended.").waitFor();
  await accessible(page, "overview with troubles");
  await page.unroute(/api\/overview/);
});

test("a key of somebody else is offered what it may do", async () => {
  await (await ask(server, "PUT", "private")).arrayBuffer();
  const key = makeKey(server, "reader", "--bucket", "photos", "--read-only");
  const reader = await newProfile(browser);
  const other = await newPage(reader);
  await other.goto(server.url);
  await signIn(other, key.secret, key.access);
  await other.getByRole("heading", { name: "Overview" }).waitFor();
  assert.equal(await other.getByRole("navigation").getByRole("link").count(), 4);
  await other.getByText("All is well").waitFor();
  await other.locator(".chart").nth(2).waitFor();
  assert.deepEqual(await other.locator(".tile-title").allInnerTexts(), ["Connections", "Running for"]);
  assert.equal(await other.locator(".panel").count(), 3);
  assert.deepEqual(reader.seen.errors, []);
  await accessible(other, "overview of somebody else");
  await other.goto(`${server.url}#/buckets`);
  await other.getByRole("row").filter({ hasText: "photos" }).waitFor();
  assert.equal(await other.getByText("private").count(), 0);
  assert.equal(await other.getByRole("button", { name: /New bucket|Remove/ }).count(), 0);
  await other.goto(`${server.url}#/objects/photos/trip/`);
  await other.getByText("cover.png").click();
  await other.getByRole("dialog").locator("img").waitFor();
  assert.equal(await other.getByRole("button", { name: /Delete|Rename|Upload/ }).count(), 0);
  await other.goto(`${server.url}#/objects/private`);
  await other.getByRole("alert").getByText("this key has no right to that bucket").waitFor();
  await reader.context.close();
});

test("every page is accessible, light and dark, in English and Chinese, on a phone too", async () => {
  await put(server, "photos", "2026/coast.png", png(480, 320, 0.5));
  await ask(server, "POST", "photos", "unfinished film.mkv", { query: { uploads: "" } }).then((answer) => answer.arrayBuffer());
  for (const [colorScheme, viewport] of [
    ["light", { width: 1280, height: 800 }],
    ["dark", { width: 390, height: 844 }],
  ]) {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize(viewport);
    for (const name of pages) {
      await open(name === "objects" ? "objects/photos" : name);
      await page.locator(".page-head").waitFor();
      await page.locator("table, .grid-row, .chart, .empty, .log").first().waitFor();
      await accessible(page, `${name} ${colorScheme}`);
      const overflow = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
      assert.equal(overflow, 0, `${name} is wider than ${viewport.width}`);
    }
  }
  await page.emulateMedia({ colorScheme: "light" });
  await page.setViewportSize({ width: 1280, height: 800 });
  await page.getByRole("button", { name: "中文" }).click();
  await open("buckets");
  await page.getByRole("heading", { name: "存储桶" }).waitFor();
  assert.equal(await page.evaluate(() => document.documentElement.lang), "zh-CN");
  await accessible(page, "Chinese");
  await page.getByRole("button", { name: "English" }).click();
  await page.getByRole("heading", { name: "Buckets" }).waitFor();
});

test("a long list is scrolled to its end, with few rows drawn at a time", async () => {
  await putMany(
    server,
    "photos",
    Array.from({ length: many }, (_, i) => `many/${String(i).padStart(6, "0")}.txt`),
  );
  await open("objects/photos/many/");
  await row("000000.txt").waitFor();
  const grid = page.getByRole("grid");
  const whole = page.getByText(/^10,500 entries$/);
  while ((await whole.count()) === 0) {
    await grid.evaluate((element) => element.scrollTo(0, element.scrollHeight));
    await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(resolve)));
  }
  await grid.evaluate((element) => element.scrollTo(0, element.scrollHeight));
  await row("010499.txt").waitFor();
  assert.ok((await page.getByRole("row").count()) < 60);
  await grid.focus();
  await page.keyboard.press("Home");
  await row("000000.txt").waitFor();
  await page.getByRole("searchbox").fill("0104");
  await page.getByText("100 entries", { exact: true }).waitFor();
  await page.getByRole("searchbox").fill("x");
  await page.getByText("No name begins with “x”").waitFor();
});

test("pictures for the README", { skip: process.env.CONSOLE_PICTURES ? false : "no folder for them is named" }, async () => {
  const out = process.env.CONSOLE_PICTURES;
  mkdirSync(out, { recursive: true });
  for (const bucket of ["family", "backups"]) {
    await (await ask(server, "PUT", bucket)).arrayBuffer();
  }
  for (const [name, body] of [
    ["2025/winter.png", png(480, 320, 0.8)],
    ["2026/coast.png", png(480, 320, 0.2)],
    ["archive.zip", noise(90_000, "zip")],
    ["cover.png", png(960, 640, 0.3)],
    ["film.mp4", noise(3_000_000, "film")],
    ["guide.pdf", pdf],
    ["notes.md", "# Coast\n"],
    ["song.wav", wav()],
    ["stones.png", png(480, 320, 0.6)],
    ["waves.png", png(480, 320, 0.1)],
  ]) {
    await put(server, "family", name, body);
  }
  // Something for the charts to show: a dozen polls with traffic between them.
  await open("overview");
  for (let polls = 0; polls < 12; ++polls) {
    const polled = page.waitForResponse(/api\/overview/);
    await Promise.all(
      Array.from({ length: 40 + 25 * (polls % 4) }, () => read(server, "family", polls % 3 ? "cover.png" : "film.mp4")),
    );
    await polled;
  }
  for (const colorScheme of ["light", "dark"]) {
    await page.emulateMedia({ colorScheme });
    await open("overview");
    await page.getByText("All is well").waitFor();
    await page.screenshot({ path: path.join(out, `overview-${colorScheme}.png`) });
    await open("objects/family");
    await row("cover.png").waitFor();
    await page.screenshot({ path: path.join(out, `files-${colorScheme}.png`) });
  }
});

test("the page goes on when the server was restarted", async () => {
  await open("overview");
  await page.getByText("All is well").waitFor();
  await server.stop();
  await page.getByText("The server did not answer.").waitFor();
  await server.run();
  await page.getByText("The session has ended. Sign in again to go on.").waitFor();
  assert.ok(expectErrors(/ERR_CONNECTION|Failed to load resource: (net::|.*401)/) > 0);
  await signIn(page);
  await page.getByText("All is well").waitFor();
});
