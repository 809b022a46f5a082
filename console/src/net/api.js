// The JSON interface of the server behind this page.
import { t } from "../text.js";
import { makeStore, saved } from "../store.js";
import { Failure } from "./failure.js";
import { proofOf } from "../pure/proof.js";

// null: nobody knows yet; false: not signed in; else {key, csrf, expires, read_only, operator, buckets}.
export const session = makeStore(null);

// Whether the key that somebody signed in with may change anything.
export const mayWrite = () => !session.get()?.read_only;

// Whether it may see how the server is run.
export const isOperator = () => Boolean(session.get()?.operator);
export const sessionEnded = makeStore(false);

// `headers` go beside those that every call carries.
async function call(method, path, body, more = {}) {
  const headers = { ...more };
  if (body !== undefined) {
    headers["Content-Type"] = "application/json";
  }
  if (method !== "GET" && session.get()) {
    headers["X-CSRF-Token"] = session.get().csrf;
  }
  let answer;
  try {
    answer = await fetch(`api/${path}`, {
      method,
      headers,
      body: body === undefined ? undefined : JSON.stringify(body),
      cache: "no-store",
    });
  } catch {
    throw new Failure(t("error.offline"));
  }
  const text = await answer.text();
  const value = parse(text);
  if (!answer.ok) {
    const options = { status: answer.status, retryAfter: Number(answer.headers.get("Retry-After")) || 0 };
    throw new Failure(value?.error || t("error.status", { status: answer.status }), options);
  }
  return value;
}

function parse(text) {
  try {
    return text === "" ? {} : JSON.parse(text);
  } catch {
    return null;
  }
}

// Whether there may be a session is remembered beside its cookie, which no script sees: a question without one is answered 401, which
// browsers report as an error of the page.
const remembered = "tansy-signed-in";

function begin(value) {
  saved.set(remembered, "yes");
  sessionEnded.set(false);
  session.set(value);
}

function end(isUnasked) {
  saved.set(remembered, "no");
  sessionEnded.set(isUnasked);
  session.set(false);
}

// A session that has ended leads back to the sign-in page, from wherever it is noticed.
async function callInSession(method, path, body, headers) {
  try {
    return await call(method, path, body, headers);
  } catch (failure) {
    if (failure.status === 401) {
      end(true);
    }
    throw failure;
  }
}

export const get = (path) => callInSession("GET", path);
// What the page asks for by itself does not keep a session alive.
export const poll = (path) => callInSession("GET", path, undefined, { "X-Tansy-Poll": "1" });
export const post = (path, body) => callInSession("POST", path, body);

// Finds out whether this browser is signed in already.
export async function findSession() {
  if (saved.get(remembered) !== "yes") {
    session.set(false);
    return;
  }
  try {
    begin(await call("GET", "session"));
  } catch (failure) {
    if (failure.status !== 401) {
      throw failure;
    }
    end(false);
  }
}

export async function signIn(key, secret) {
  const { nonce } = await call("GET", "challenge");
  const proof = await proofOf(secret, key, nonce);
  begin(await call("POST", "session", { key, nonce, proof }));
}

export async function signOut() {
  await callInSession("DELETE", "session");
  end(false);
}
