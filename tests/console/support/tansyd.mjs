// A tansyd of this build as a process of its own, with ports that nobody else has.
import { spawn } from "node:child_process";
import { createServer } from "node:net";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import path from "node:path";

export const keys = { access: "console-test-access", secret: "console-test-secret-4711" };
const patience = 60_000;

function freePort() {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.on("error", reject);
    server.listen(0, "127.0.0.1", () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

// A test that is ended from outside leaves no server behind.
const running = new Set();
process.on("exit", () => running.forEach((child) => child.kill("SIGKILL")));
for (const signal of ["SIGINT", "SIGTERM", "SIGHUP", "SIGPIPE"]) {
  process.on(signal, () => process.exit(1));
}

export class Tansyd {
  // Starts on a new folder, and waits until it is ready.
  static async start(more = []) {
    const server = new Tansyd();
    server.folder = mkdtempSync(path.join(tmpdir(), "tansy-console-"));
    server.ports = { object: await freePort(), picture: await freePort(), s3: await freePort(), admin: await freePort() };
    server.more = more;
    await server.run();
    return server;
  }

  get url() {
    return `http://127.0.0.1:${this.ports.admin}/console/`;
  }

  get s3() {
    return `http://127.0.0.1:${this.ports.s3}`;
  }

  async run() {
    const { object, picture, s3, admin } = this.ports;
    const options = [
      "--data",
      path.join(this.folder, "data"),
      "--listen",
      "127.0.0.1",
      "--object-port",
      object,
      "--object-https-port",
      0,
      "--picture-port",
      picture,
      "--picture-https-port",
      0,
      "--s3-port",
      s3,
      "--s3-https-port",
      0,
      "--admin-port",
      admin,
      ...this.more,
    ].map(String);
    const environment = { ...process.env, TANSY_ACCESS_KEY: keys.access, TANSY_SECRET_KEY: keys.secret };
    this.said = "";
    this.process = spawn(process.env.TANSYD, options, { env: environment, stdio: ["ignore", "pipe", "pipe"] });
    const child = this.process;
    running.add(child);
    this.ended = new Promise((resolve) => child.on("exit", resolve)).then(() => running.delete(child));
    await new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`tansyd is not ready:\n${this.said}`)), patience);
      const hear = (text) => {
        this.said = (this.said + text).slice(-100_000);
        if (this.said.includes("tansyd ready")) {
          clearTimeout(timer);
          resolve();
        }
      };
      this.process.stdout.on("data", hear);
      this.process.stderr.on("data", hear);
      this.process.on("exit", (code) => reject(new Error(`tansyd ended with ${code}:\n${this.said}`)));
    });
  }

  async stop() {
    this.process.kill("SIGTERM");
    await this.ended;
  }

  async remove() {
    await this.stop();
    rmSync(this.folder, { recursive: true, force: true });
  }
}
