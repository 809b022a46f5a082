import assert from "node:assert/strict";
import { test } from "node:test";
import { UploadMemory } from "../src/uploads/memory.js";
import { UploadQueue } from "../src/uploads/queue.js";

const mebibyte = 1024 * 1024;

// What a browser keeps for a page.
class Storage {
  constructor() {
    this.map = new Map();
  }
  get length() {
    return this.map.size;
  }
  key(i) {
    return [...this.map.keys()][i];
  }
  getItem(name) {
    return this.map.get(name);
  }
  setItem(name, value) {
    this.map.set(name, value);
  }
  removeItem(name) {
    this.map.delete(name);
  }
}

// A file of which only sizes matter.
function file(size, lastModified = 1) {
  const slice = (from, to) => ({ size: to - from, slice, arrayBuffer: async () => new ArrayBuffer(0) });
  return { size, lastModified, type: "", slice, arrayBuffer: async () => new ArrayBuffer(0) };
}

class Failure extends Error {
  constructor(status, code = "") {
    super(code || `status ${status}`);
    this.status = status;
    this.code = code;
  }
  get isPassing() {
    return this.status === 0 || this.status === 503;
  }
}

// A storage in memory. `fail(call)` may throw.
class Server {
  constructor(fail = () => {}) {
    Object.assign(this, { fail, objects: new Map(), uploads: new Map(), calls: [] });
  }
  note(...call) {
    this.calls.push(call.join(" "));
    this.fail(call.join(" "));
  }
  async putObject(bucket, key, body, { headers }) {
    this.note("put", key);
    if (headers["If-None-Match"] && this.objects.has(key)) {
      throw new Failure(412, "PreconditionFailed");
    }
    this.objects.set(key, body.size);
  }
  async findObject(bucket, key) {
    return this.objects.has(key) ? { size: this.objects.get(key) } : null;
  }
  async beginUpload(bucket, key) {
    const id = `u${this.uploads.size + 1}`;
    this.uploads.set(id, new Map());
    this.note("begin", key, id);
    return id;
  }
  async listParts(bucket, key, id) {
    if (!this.uploads.has(id)) {
      throw new Failure(404, "NoSuchUpload");
    }
    return [...this.uploads.get(id)].map(([number, size]) => ({ number, size, etag: `e${number}` }));
  }
  async putPart(bucket, key, id, number, body) {
    this.note("part", key, number);
    this.uploads.get(id).set(number, body.size);
    return `e${number}`;
  }
  async completeUpload(bucket, key, id, parts) {
    this.note("complete", key);
    const stored = this.uploads.get(id);
    this.objects.set(
      key,
      parts.reduce((sum, part) => sum + stored.get(part.number), 0),
    );
    this.uploads.delete(id);
  }
  async abortUpload(bucket, key, id) {
    this.uploads.delete(id);
  }
}

function queueOn(server, storage = new Storage()) {
  const queue = new UploadQueue({ s3: server, memory: new UploadMemory(storage), wait: async () => {}, changed: () => {} });
  // Resolves when nothing runs or waits any more.
  queue.rest = async () => {
    while (queue.items.some((item) => ["waiting", "running"].includes(item.state))) {
      await new Promise((resolve) => setImmediate(resolve));
    }
  };
  queue.states = () => queue.items.map((item) => item.state);
  return queue;
}

test("small files go up in one request, large ones in parts, and nothing is remembered at the end", async () => {
  const server = new Server();
  const storage = new Storage();
  const queue = queueOn(server, storage);
  queue.add("b", [
    { key: "small", file: file(10) },
    { key: "large", file: file(40 * mebibyte + 1) },
    { key: "empty", file: file(0) },
  ]);
  await queue.rest();
  assert.deepEqual(queue.states(), ["done", "done", "done"]);
  assert.deepEqual(Object.fromEntries(server.objects), { small: 10, large: 40 * mebibyte + 1, empty: 0 });
  assert.equal(server.uploads.size, 0);
  assert.equal(storage.length, 0);
});

test("after a reload only what was not sent is sent, and what is done is left alone", async () => {
  const server = new Server();
  const storage = new Storage();
  const files = [
    { key: "f/small", file: file(10) },
    { key: "f/large", file: file(40 * mebibyte) },
  ];
  const refuse = (call) => {
    if (call === "part f/large 3") {
      throw new Failure(403, "AccessDenied");
    }
  };
  const before = queueOn(new Server(refuse), storage);
  before.add("b", files);
  await before.rest();
  assert.deepEqual(before.states(), ["done", "failed"]);

  server.objects = before.s3.objects;
  server.uploads = before.s3.uploads;
  const after = queueOn(server, storage);
  assert.deepEqual(after.states(), ["lost"]);
  assert.equal(after.add("b", [{ key: "f/large", file: file(40 * mebibyte, 2) }], true), 0, "another time: another file");
  assert.equal(after.add("b", files), 2);
  await after.rest();
  assert.deepEqual(after.states(), ["done"]);
  assert.equal(server.objects.get("f/large"), 40 * mebibyte);
  assert.ok(!server.calls.includes("put f/small"));
  assert.ok(!server.calls.includes("part f/large 1"));
  assert.ok(server.calls.includes("part f/large 3"));
  assert.equal(storage.length, 0);
});

test("interrupted files are found by their paths in a folder that is chosen again", () => {
  const storage = new Storage();
  const memory = new UploadMemory(storage);
  memory.keep({ bucket: "b", key: "2026/trip/a.jpg", size: 5, mtime: 1, uploadId: "", partSize: 0 });
  const queue = queueOn(new Server(), storage);
  assert.equal(queue.addLost([{ path: "other/a.jpg", file: file(5) }]), 0);
  assert.equal(queue.addLost([{ path: "trip/a.jpg", file: file(6) }]), 0);
  assert.equal(queue.addLost([{ path: "trip/a.jpg", file: file(5) }]), 1);
});

test("an upload that the server has forgotten begins again", async () => {
  const storage = new Storage();
  new UploadMemory(storage).keep({
    bucket: "b",
    key: "large",
    size: 20 * mebibyte,
    mtime: 1,
    uploadId: "gone",
    partSize: 8 * mebibyte,
  });
  const server = new Server();
  const queue = queueOn(server, storage);
  queue.add("b", [{ key: "large", file: file(20 * mebibyte) }]);
  await queue.rest();
  assert.equal(server.objects.get("large"), 20 * mebibyte);
});

test("a server that is away for a while is waited for; one that refuses is not", async () => {
  let left = 3;
  const server = new Server((call) => {
    if (call === "put a" && left-- > 0) {
      throw new Failure(0);
    }
    if (call === "put b") {
      throw new Failure(403, "AccessDenied");
    }
  });
  const queue = queueOn(server);
  queue.add("b", [
    { key: "a", file: file(1) },
    { key: "b", file: file(1) },
  ]);
  await queue.rest();
  assert.deepEqual(queue.states(), ["done", "failed"]);
  assert.equal(server.calls.filter((call) => call === "put b").length, 1);
});

test("a server that stays away ends the upload, which can be tried again", async () => {
  let isAway = true;
  const server = new Server(() => {
    if (isAway) {
      throw new Failure(0);
    }
  });
  const queue = queueOn(server);
  queue.add("b", [{ key: "a", file: file(1) }]);
  await queue.rest();
  assert.deepEqual(queue.states(), ["failed"]);
  isAway = false;
  queue.resumeAll();
  await queue.rest();
  assert.deepEqual(queue.states(), ["done"]);
});

test("a name that is taken is asked about, and nothing is replaced unasked", async () => {
  for (const size of [3, 20 * mebibyte]) {
    const server = new Server();
    server.objects.set("cat.jpg", 1).set("cat (2).jpg", 2);
    const queue = queueOn(server);
    queue.add("b", [{ key: "cat.jpg", file: file(size) }]);
    await queue.rest();
    assert.deepEqual(queue.states(), ["exists"]);
    queue.decide("keepBoth");
    await queue.rest();
    assert.deepEqual(Object.fromEntries(server.objects), { "cat.jpg": 1, "cat (2).jpg": 2, "cat (3).jpg": size });
    queue.add("b", [{ key: "cat.jpg", file: file(size) }]);
    await queue.rest();
    queue.decide("replace");
    await queue.rest();
    assert.equal(server.objects.get("cat.jpg"), size);
    queue.add("b", [{ key: "cat.jpg", file: file(size + 1) }]);
    await queue.rest();
    queue.decide("skip");
    assert.equal(queue.states().at(-1), "skipped");
    assert.equal(server.objects.get("cat.jpg"), size);
  }
});

test("at most four files are under way, and one that is stopped gives its parts back", async () => {
  const server = new Server();
  const releases = [];
  server.putPart = (bucket, key, id, number, body, { signal }) =>
    new Promise((resolve, reject) => {
      releases.push(resolve);
      signal.addEventListener("abort", () => reject(new Failure(400, "aborted")));
    });
  const queue = queueOn(server);
  queue.add(
    "b",
    Array.from({ length: 6 }, (_, i) => ({ key: `k${i}`, file: file(20 * mebibyte) })),
  );
  while (server.uploads.size < 4 || releases.length < 12) {
    await new Promise((resolve) => setImmediate(resolve));
  }
  assert.deepEqual(queue.states(), ["running", "running", "running", "running", "waiting", "waiting"]);
  queue.pauseAll();
  assert.ok(queue.states().every((state) => state === "paused"));
  for (const item of [...queue.items]) {
    await queue.remove(item);
  }
  assert.equal(server.uploads.size, 0);
});

test("a file beyond the limit of the server is refused before anything is sent", async () => {
  const server = new Server();
  const queue = queueOn(server);
  queue.add("b", [{ key: "huge", file: file(4294967296) }]);
  await queue.rest();
  assert.deepEqual(queue.states(), ["failed"]);
  assert.deepEqual(server.calls, []);
});
