// Debian's Chromium, without a window, kept on this machine.
import { execFileSync } from "node:child_process";
import { createRequire } from "node:module";
import path from "node:path";

// The packages are where the console was built.
const load = createRequire(path.join(process.env.CONSOLE_BUILD, "package.json"));
export const { chromium } = load("playwright-core");
export const axeSource = load("axe-core").source;

export function findBrowser() {
  const names = process.env.TANSY_TEST_BROWSER
    ? [process.env.TANSY_TEST_BROWSER]
    : ["chromium", "chromium-browser", "google-chrome", "chrome"];
  for (const name of names) {
    try {
      return execFileSync("sh", ["-c", 'command -v "$0"', name], { encoding: "utf8" }).trim();
    } catch {
      // The next one, then.
    }
  }
  return "";
}

export function launch(executablePath) {
  return chromium.launch({
    executablePath,
    args: [
      "--disable-gpu",
      "--disable-dev-shm-usage",
      "--disable-background-networking",
      "--disable-component-update",
      "--disable-sync",
      "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
    ],
    chromiumSandbox: process.getuid() !== 0,
  });
}

// A profile of its own, whose requests and errors are noted.
export async function newProfile(browser, options = {}) {
  const context = await browser.newContext({
    viewport: { width: 1280, height: 800 },
    locale: "en-GB",
    timezoneId: "Europe/Berlin",
    ...options,
  });
  context.setDefaultTimeout(30_000);
  const seen = { errors: [], hosts: new Set() };
  context.on("request", (request) => /^https?:/.test(request.url()) && seen.hosts.add(new URL(request.url()).hostname));
  context.on("console", (message) => message.type() === "error" && seen.errors.push(`${message.text()} ${message.location().url}`));
  context.on("weberror", (error) => seen.errors.push(String(error.error())));
  return { context, seen };
}
