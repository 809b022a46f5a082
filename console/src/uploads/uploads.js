// The queue of this page, and what shows it.
import * as s3 from "../net/s3.js";
import { makeStore } from "../store.js";
import { UploadMemory } from "./memory.js";
import { UploadQueue } from "./queue.js";

// Counts the changes; whoever shows the queue looks at it again at most once per picture.
export const uploadsTurn = makeStore(0);

let isAsked = false;
function changed() {
  if (!isAsked) {
    isAsked = true;
    setTimeout(() => {
      isAsked = false;
      uploadsTurn.set((turn) => turn + 1);
    }, 50);
  }
}

function wait(seconds, signal) {
  return new Promise((resolve) => {
    const timer = setTimeout(resolve, seconds * 1000);
    signal.addEventListener("abort", () => {
      clearTimeout(timer);
      resolve();
    });
  });
}

// A browser that keeps nothing still uploads.
function storage() {
  try {
    return window.localStorage;
  } catch {
    return null;
  }
}

export const queue = new UploadQueue({ s3, memory: new UploadMemory(storage()), wait, changed });

// Objects that this page has uploaded are told to whoever shows their folder.
export function finishedCount() {
  return queue.items.filter((item) => item.state === "done").length;
}

window.addEventListener("beforeunload", (event) => {
  if (queue.items.some((item) => ["running", "waiting"].includes(item.state))) {
    event.preventDefault();
  }
});
