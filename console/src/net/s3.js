// The storage itself: requests go straight to it, by links that the server signs.
import { post } from "./api.js";
import { aborted, Failure, wordsOf } from "./failure.js";
import { completionOf, fitsXml, removalOf } from "../pure/parts.js";
import { inChunks } from "../pure/chunks.js";
import { t } from "../text.js";

const linkSeconds = 900;

// Links that are asked for at the same time travel in one request.
let asked = [];

export function sign(request) {
  return new Promise((resolve, reject) => {
    asked.push({ request: { query: {}, headers: {}, expires: linkSeconds, key: "", ...request }, resolve, reject });
    if (asked.length === 1) {
      queueMicrotask(signAsked);
    }
  });
}

async function signAsked() {
  const waiting = asked;
  asked = [];
  for (const some of inChunks(waiting, ({ request }) => JSON.stringify(request).length * 3)) {
    try {
      const { urls } = await post(
        "sign",
        some.map((one) => one.request),
      );
      some.forEach((one, i) => one.resolve(urls[i]));
    } catch (failure) {
      some.forEach((one) => one.reject(failure));
    }
  }
}

// Sends one request; gives {status, text, headers}. `body` may be a Blob; `progress` hears of bytes that have left.
export function send(url, { method = "GET", body = null, headers = {}, progress = null, signal = null } = {}) {
  return new Promise((resolve, reject) => {
    if (signal?.aborted) {
      reject(aborted());
      return;
    }
    const request = new XMLHttpRequest();
    request.open(method, url);
    Object.entries(headers).forEach(([name, value]) => request.setRequestHeader(name, value));
    if (progress) {
      request.upload.onprogress = (event) => progress(event.loaded);
    }
    const stop = () => request.abort();
    signal?.addEventListener("abort", stop);
    request.onloadend = () => signal?.removeEventListener("abort", stop);
    request.onabort = () => reject(aborted());
    request.onerror = () => reject(new Failure(t("error.storageOffline")));
    request.onload = () =>
      resolve({ status: request.status, text: request.responseText, header: (name) => request.getResponseHeader(name) });
    request.send(body);
  });
}

function element(document, name) {
  return document.getElementsByTagName(name)[0]?.textContent ?? "";
}

export function failureOf(answer) {
  const document = new DOMParser().parseFromString(answer.text || "<none/>", "application/xml");
  const code = element(document, "Code");
  return new Failure(wordsOf(code, element(document, "Message"), answer.status), { code, status: answer.status });
}

// Signs and sends; throws for every answer that is none of success. Gives the answer and its document.
async function ask(request, options = {}) {
  const url = await sign(request);
  const answer = await send(url, { method: request.method, headers: request.headers, ...options });
  // Long operations say only in their document that they failed.
  if (answer.status >= 300 || /^\s*(<\?[^>]*>)?\s*<Error>/.test(answer.text)) {
    throw failureOf(answer);
  }
  return { answer, document: answer.text ? new DOMParser().parseFromString(answer.text, "application/xml") : null };
}

const decode = (text) => decodeURIComponent(text.replace(/\+/g, "%20"));

// One page of a folder: {entries, next}; `next` is "" at the end. `folders` tells whether what lies behind a slash is taken together.
export async function listObjects(bucket, prefix, { next = "", folders = true, most = 1000 } = {}) {
  const query = { "list-type": "2", "encoding-type": "url", "max-keys": String(most), prefix };
  if (folders) {
    query.delimiter = "/";
  }
  if (next) {
    query["continuation-token"] = next;
  }
  const { document } = await ask({ method: "GET", bucket, query });
  const entries = [];
  for (const node of document.documentElement.children) {
    if (node.tagName === "CommonPrefixes") {
      entries.push({ key: decode(element(node, "Prefix")), size: null, time: null });
    } else if (node.tagName === "Contents") {
      entries.push({ key: decode(element(node, "Key")), size: Number(element(node, "Size")), time: element(node, "LastModified") });
    }
  }
  entries.sort((a, b) => (a.key < b.key ? -1 : a.key > b.key ? 1 : 0));
  return { entries, next: element(document, "NextContinuationToken") };
}

// {size}, or null when there is none of this key. A listing asks, because browsers report an answer of 404 as an error of the page.
export async function findObject(bucket, key) {
  const { entries } = await listObjects(bucket, key, { folders: false, most: 1 });
  return entries[0]?.key === key ? { size: entries[0].size } : null;
}

export async function readStart(bucket, key, bytes) {
  const url = await sign({ method: "GET", bucket, key });
  let answer;
  try {
    answer = await fetch(url, { headers: { Range: `bytes=0-${bytes - 1}` }, cache: "no-store" });
  } catch {
    throw new Failure(t("error.storageOffline"));
  }
  if (answer.status === 416) {
    return { text: "", isCut: false }; // it is empty
  }
  const buffer = await answer.arrayBuffer();
  if (!answer.ok) {
    throw failureOf({ status: answer.status, text: new TextDecoder().decode(buffer) });
  }
  const total = Number(/\/(\d+)$/.exec(answer.headers.get("Content-Range") ?? "")?.[1] ?? buffer.byteLength);
  return { text: new TextDecoder().decode(buffer), isCut: total > buffer.byteLength };
}

export const linkTo = (bucket, key, { seconds = linkSeconds, type = "", attachment = "" } = {}) => {
  const query = {};
  if (type) {
    query["response-content-type"] = type;
  }
  if (attachment) {
    query["response-content-disposition"] =
      `attachment; filename*=UTF-8''${encodeURIComponent(attachment).replace(/['()*]/g, (mark) => `%${mark.charCodeAt(0).toString(16)}`)}`;
  }
  return sign({ method: "GET", bucket, key, query, expires: seconds });
};

export const putObject = (bucket, key, body, options) => ask({ method: "PUT", bucket, key }, { body, ...options });

export const copyObject = (bucket, from, to) => {
  const source = `/${bucket}/${from.split("/").map(encodeURIComponent).join("/")}`;
  return ask({ method: "PUT", bucket, key: to, headers: { "x-amz-copy-source": source } });
};

export const deleteObject = (bucket, key) => ask({ method: "DELETE", bucket, key });

// At most 1,000 keys at a time. A plain content type spares the browser a question before each request.
export async function deleteObjects(bucket, keys) {
  const written = keys.filter(fitsXml);
  for (const key of keys.filter((one) => !fitsXml(one))) {
    await deleteObject(bucket, key);
  }
  if (written.length === 0) {
    return;
  }
  const url = await sign({ method: "POST", bucket, query: { delete: "" } });
  const answer = await send(url, { method: "POST", body: removalOf(written), headers: { "Content-Type": "text/plain" } });
  const document = new DOMParser().parseFromString(answer.text, "application/xml");
  const [error] = document.getElementsByTagName("Error");
  if (answer.status >= 300 || error) {
    throw failureOf({ status: answer.status, text: answer.text });
  }
}

// When each bucket was made: a Map of names to times. It is empty for a key that may not list buckets.
export async function bucketTimes() {
  const url = await sign({ method: "GET", bucket: "" });
  const answer = await send(url);
  if (answer.status === 403) {
    return new Map();
  }
  if (answer.status >= 300) {
    throw failureOf(answer);
  }
  const document = new DOMParser().parseFromString(answer.text, "application/xml");
  return new Map(
    Array.from(document.getElementsByTagName("Bucket"), (node) => [element(node, "Name"), element(node, "CreationDate")]),
  );
}

export const makeBucket = (bucket) => ask({ method: "PUT", bucket });
export const removeBucket = (bucket) => ask({ method: "DELETE", bucket });

export async function beginUpload(bucket, key, type) {
  const { document } = await ask(
    { method: "POST", bucket, key, query: { uploads: "" } },
    { headers: type ? { "Content-Type": type } : {} },
  );
  return element(document, "UploadId");
}

export async function listParts(bucket, key, uploadId) {
  const parts = [];
  for (let marker = "0"; ;) {
    const { document } = await ask({ method: "GET", bucket, key, query: { uploadId, "part-number-marker": marker } });
    for (const node of document.getElementsByTagName("Part")) {
      parts.push({ number: Number(element(node, "PartNumber")), size: Number(element(node, "Size")), etag: element(node, "ETag") });
    }
    if (element(document, "IsTruncated") !== "true") {
      return parts;
    }
    marker = element(document, "NextPartNumberMarker");
  }
}

export async function putPart(bucket, key, uploadId, number, body, options) {
  const { answer } = await ask(
    { method: "PUT", bucket, key, query: { uploadId, partNumber: String(number) } },
    { body, ...options },
  );
  return answer.header("ETag") ?? "";
}

export const completeUpload = (bucket, key, uploadId, parts) =>
  ask(
    { method: "POST", bucket, key, query: { uploadId } },
    { body: completionOf(parts), headers: { "Content-Type": "text/plain" } },
  );

export const abortUpload = (bucket, key, uploadId) => ask({ method: "DELETE", bucket, key, query: { uploadId } });

export async function listUploads(bucket) {
  const uploads = [];
  let markers = {};
  for (;;) {
    const { document } = await ask({ method: "GET", bucket, query: { uploads: "", "encoding-type": "url", ...markers } });
    for (const node of document.getElementsByTagName("Upload")) {
      uploads.push({ bucket, key: decode(element(node, "Key")), id: element(node, "UploadId"), time: element(node, "Initiated") });
    }
    if (element(document, "IsTruncated") !== "true") {
      return uploads;
    }
    markers = {
      "key-marker": decode(element(document, "NextKeyMarker")),
      "upload-id-marker": element(document, "NextUploadIdMarker"),
    };
  }
}
