// Uploads: several at a time, each of them to be paused, and to be gone on with after a reload of the page.
import { freeName } from "../pure/names.js";
import { bytesStored, largeFrom, mostObjectBytes, partSizeFor, planParts } from "../pure/parts.js";
import { isSameFile } from "./memory.js";

const atOnce = 4; // files
const partsAtOnce = 3; // of one file
const mostTries = 8;

// States: "waiting", "running", "paused", "done", "skipped", "failed", "exists" (a file of this name is there: somebody has to say what
// to do), "lost" (interrupted by a reload: the file has to be chosen again).
export class UploadQueue {
  // `s3` has the calls of net/s3.js, `wait(seconds)` gives a promise, `changed` is called when there is something new to show.
  constructor({ s3, memory, wait, changed }) {
    Object.assign(this, { s3, memory, wait, changed, items: [], lastId: 0, finished: new Map() });
    for (const record of memory.all()) {
      if (record.isDone) {
        this.finished.set(nameOf(record), record);
      } else {
        this.items.push(this.newItem({ ...record, state: "lost" }));
      }
    }
    this.tidy();
  }

  newItem(values) {
    return {
      id: ++this.lastId,
      file: null,
      sent: 0,
      error: "",
      uploadId: "",
      partSize: 0,
      mayReplace: false,
      controller: null,
      tries: 0,
      ...values,
    };
  }

  // `files`: [{key, file}]. Those that were interrupted go on where they were; with `onlyLost` all others are left out. Gives the number
  // of those that were taken.
  add(bucket, files, onlyLost = false) {
    let taken = 0;
    for (const { key, file } of files) {
      const name = nameOf({ bucket, key });
      const finished = this.finished.get(name);
      const present = this.items.find((item) => nameOf(item) === name && !["done", "skipped"].includes(item.state));
      if (finished && isSameFile(finished, file)) {
        ++taken;
      } else if (present?.state === "lost" && isSameFile(present, file)) {
        Object.assign(present, { file, state: "waiting", error: "" });
        ++taken;
      } else if (!onlyLost && (!present || ["failed", "lost", "exists"].includes(present.state))) {
        this.items = this.items.filter((item) => item !== present);
        this.addNew(bucket, key, file);
        ++taken;
      }
    }
    this.changed();
    this.start();
    return taken;
  }

  // The same for files of which only the path within the chosen folder is known: it is looked for among the interrupted ones.
  addLost(files) {
    const wanted = this.items.filter((item) => item.state === "lost");
    let taken = 0;
    for (const { path, file } of files) {
      const item = wanted.find(
        (one) => one.file === null && (one.key === path || one.key.endsWith(`/${path}`)) && isSameFile(one, file),
      );
      if (item) {
        Object.assign(item, { file, state: "waiting" });
        ++taken;
      }
    }
    this.changed();
    this.start();
    return taken;
  }

  addNew(bucket, key, file) {
    const item = this.newItem({ bucket, key, file, size: file.size, mtime: file.lastModified, state: "waiting" });
    if (file.size > mostObjectBytes) {
      Object.assign(item, { state: "failed", error: "uploads.tooLarge", isFinal: true });
    }
    this.items.push(item);
    if (item.state === "waiting") {
      this.memory.keep(recordOf(item));
    }
  }

  start() {
    let running = this.items.filter((item) => item.state === "running").length;
    for (const item of this.items) {
      if (running >= atOnce) {
        return;
      }
      if (item.state === "waiting") {
        ++running;
        this.run(item);
      }
    }
  }

  async run(item) {
    item.state = "running";
    item.error = "";
    const controller = new AbortController();
    item.controller = controller;
    try {
      await (item.size < largeFrom ? this.sendSmall(item, controller.signal) : this.sendLarge(item, controller.signal));
      this.finish(item);
    } catch (failure) {
      controller.abort(); // the other parts of the same file
      if (item.controller === controller) {
        this.fail(item, failure);
      }
    }
    this.changed();
    this.tidy();
    this.start();
  }

  finish(item) {
    item.state = "done";
    item.sent = item.size;
    item.file = null;
    const record = { ...recordOf(item), isDone: true };
    this.finished.set(nameOf(item), record);
    this.memory.keep(record);
  }

  fail(item, failure) {
    if (item.state === "paused" || item.state === "removed") {
      return;
    }
    if (failure.code === "exists" && item.taken) {
      this.takeFreeName(item);
      return;
    }
    if (failure.code === "exists") {
      item.state = "exists";
      return;
    }
    item.state = "failed";
    item.error = failure.message;
  }

  // When nothing of a batch is left to do, what is done needs no memory any more.
  tidy() {
    if (this.items.some((item) => !["done", "skipped"].includes(item.state) && !item.isFinal)) {
      return;
    }
    this.finished.forEach((record) => this.memory.forget(record));
    this.finished.clear();
  }

  // Tries again while the server does not answer. Each success starts the count again.
  async patiently(item, signal, action) {
    for (;;) {
      try {
        const result = await action();
        item.tries = 0;
        item.error = "";
        return result;
      } catch (failure) {
        if (signal.aborted || !failure.isPassing || item.tries >= mostTries) {
          throw failure;
        }
        ++item.tries;
        item.error = "uploads.again";
        this.changed();
        await this.wait(Math.min(30, 2 ** (item.tries - 1)), signal);
      }
    }
  }

  async sendSmall(item, signal) {
    const headers = contentType(item.file);
    if (!item.mayReplace) {
      headers["If-None-Match"] = "*";
    }
    const progress = (sent) => this.progress(item, sent);
    try {
      await this.patiently(item, signal, async () =>
        this.s3.putObject(item.bucket, item.key, await this.read(item.file), { headers, progress, signal }),
      );
    } catch (failure) {
      throw failure.status === 412 ? Object.assign(failure, { code: "exists" }) : failure;
    }
  }

  // A file that was changed or taken away since it was chosen cannot be read: said as such, not as a failure of the server.
  async read(blob) {
    try {
      await blob.slice(0, 1).arrayBuffer();
    } catch {
      throw Object.assign(new Error("error.file"), { code: "file" });
    }
    return blob;
  }

  async sendLarge(item, signal) {
    const stored = await this.findParts(item, signal);
    if (!item.uploadId) {
      await this.beginLarge(item, signal);
    }
    const parts = planParts(item.size, item.partSize, stored);
    const underWay = new Map();
    const show = () => this.progress(item, bytesStored(parts) + [...underWay.values()].reduce((sum, bytes) => sum + bytes, 0));
    show();
    const missing = parts.filter((part) => !part.etag);
    const sendNext = async () => {
      for (let part = missing.shift(); part; part = missing.shift()) {
        const one = part;
        const progress = (sent) => {
          underWay.set(one.number, sent);
          show();
        };
        one.etag = await this.patiently(item, signal, async () =>
          this.s3.putPart(item.bucket, item.key, item.uploadId, one.number, await this.read(item.file.slice(one.from, one.to)), {
            progress,
            signal,
          }),
        );
        underWay.delete(one.number);
        show();
      }
    };
    await Promise.all(Array.from({ length: partsAtOnce }, sendNext));
    await this.patiently(item, signal, () => this.s3.completeUpload(item.bucket, item.key, item.uploadId, parts));
  }

  // The parts that the server has of an upload that was begun before; when it knows it no more, a new one is begun.
  async findParts(item, signal) {
    if (!item.uploadId) {
      return [];
    }
    try {
      return await this.patiently(item, signal, () => this.s3.listParts(item.bucket, item.key, item.uploadId));
    } catch (failure) {
      if (failure.code !== "NoSuchUpload") {
        throw failure;
      }
      item.uploadId = "";
      return [];
    }
  }

  async beginLarge(item, signal) {
    if (!item.mayReplace && (await this.patiently(item, signal, () => this.s3.findObject(item.bucket, item.key)))) {
      throw Object.assign(new Error("exists"), { code: "exists" });
    }
    item.partSize = partSizeFor(item.size);
    item.uploadId = await this.patiently(item, signal, () => this.s3.beginUpload(item.bucket, item.key, item.file.type));
    this.memory.keep(recordOf(item));
  }

  progress(item, sent) {
    item.sent = Math.min(sent, item.size);
    this.changed();
  }

  pause(item) {
    if (["waiting", "running"].includes(item.state)) {
      item.state = "paused";
      item.controller?.abort();
      this.changed();
      this.start();
    }
  }

  resume(item) {
    if (["paused", "failed"].includes(item.state) && !item.isFinal) {
      Object.assign(item, { state: "waiting", error: "", tries: 0 });
      this.changed();
      this.start();
    }
  }

  pauseAll() {
    this.items.forEach((item) => item.state === "waiting" && (item.state = "paused"));
    this.items.forEach((item) => this.pause(item));
    this.changed();
  }

  resumeAll() {
    this.items.forEach((item) => this.resume(item));
  }

  // Stops an upload for good, and gives back what was sent of it.
  remove(item) {
    const { uploadId, state } = item;
    item.state = "removed";
    item.controller?.abort();
    this.items = this.items.filter((one) => one !== item);
    this.memory.forget(item);
    this.tidy();
    this.changed();
    this.start();
    if (uploadId && !["done", "skipped"].includes(state)) {
      return this.s3.abortUpload(item.bucket, item.key, uploadId).catch(() => {
        // It shows among the unfinished uploads, and ends by itself after three days.
      });
    }
    return Promise.resolve();
  }

  forgetLost() {
    return Promise.all(this.items.filter((item) => item.state === "lost").map((item) => this.remove(item)));
  }

  clearDone() {
    this.items = this.items.filter((item) => !["done", "skipped"].includes(item.state));
    this.changed();
  }

  // The next name after those that turned out to be taken.
  takeFreeName(item) {
    this.memory.forget(item);
    item.taken.add(item.key);
    item.key = freeName(
      item.wish,
      (key) => item.taken.has(key) || this.items.some((one) => one.bucket === item.bucket && one.key === key),
    );
    this.memory.keep(recordOf(item));
    item.state = "waiting";
  }

  // What becomes of files whose names are taken: "replace", "keepBoth" or "skip".
  decide(choice) {
    for (const item of this.items.filter((one) => one.state === "exists")) {
      if (choice === "skip") {
        item.state = "skipped";
        this.memory.forget(item);
        continue;
      }
      if (choice === "keepBoth") {
        item.taken = new Set();
        item.wish = item.key;
        this.takeFreeName(item);
      } else {
        item.mayReplace = true;
        item.state = "waiting";
      }
    }
    this.changed();
    this.tidy();
    this.start();
  }
}

function nameOf({ bucket, key }) {
  return `${bucket}/${key}`;
}

function recordOf({ bucket, key, size, mtime, uploadId, partSize }) {
  return { bucket, key, size, mtime, uploadId, partSize };
}

function contentType(file) {
  return { "Content-Type": file.type || "application/octet-stream" };
}
