// The storage as another client uses it: requests signed by version 4 in the query.
import { execFileSync } from "node:child_process";
import { createHash, createHmac } from "node:crypto";
import { keys } from "./tansyd.mjs";

const hmac = (key, text) => createHmac("sha256", key).update(text).digest();
const encode = (text) =>
  encodeURIComponent(text).replace(/[!'()*]/g, (mark) => `%${mark.charCodeAt(0).toString(16).toUpperCase()}`);

function link(server, method, bucket, key, query) {
  const host = new URL(server.s3).host;
  const time = new Date().toISOString().replace(/[-:]|\.\d+/g, "");
  const scope = [time.slice(0, 8), "us-east-1", "s3", "aws4_request"];
  const all = {
    ...query,
    "X-Amz-Algorithm": "AWS4-HMAC-SHA256",
    "X-Amz-Credential": [keys.access, ...scope].join("/"),
    "X-Amz-Date": time,
    "X-Amz-Expires": "900",
    "X-Amz-SignedHeaders": "host",
  };
  const path = `/${encode(bucket)}${key ? `/${key.split("/").map(encode).join("/")}` : ""}`;
  const parameters = Object.keys(all)
    .sort()
    .map((name) => `${encode(name)}=${encode(all[name])}`)
    .join("&");
  const request = [method, path, parameters, `host:${host}`, "", "host", "UNSIGNED-PAYLOAD"].join("\n");
  const text = ["AWS4-HMAC-SHA256", time, scope.join("/"), createHash("sha256").update(request).digest("hex")].join("\n");
  const key4 = scope.reduce((secret, part) => hmac(secret, part), `AWS4${keys.secret}`);
  return `${server.s3}${path}?${parameters}&X-Amz-Signature=${hmac(key4, text).toString("hex")}`;
}

// Sends a request; gives the answer, whatever its status.
export function ask(server, method, bucket, key = "", { body, query = {} } = {}) {
  return fetch(link(server, method, bucket, key, query), { method, body });
}

export async function put(server, bucket, key, body) {
  const answer = await ask(server, "PUT", bucket, key, { body });
  if (!answer.ok) {
    throw new Error(`PUT ${bucket}/${key}: ${answer.status} ${await answer.text()}`);
  }
  await answer.arrayBuffer();
}

export async function read(server, bucket, key) {
  const answer = await ask(server, "GET", bucket, key);
  return answer.ok ? Buffer.from(await answer.arrayBuffer()) : null;
}

// Stores many small objects, some at a time.
export async function putMany(server, bucket, names) {
  const left = [...names];
  const work = async () => {
    for (let name = left.pop(); name !== undefined; name = left.pop()) {
      await put(server, bucket, name, "x");
    }
  };
  await Promise.all(Array.from({ length: 32 }, work));
}

// Makes a key for somebody else by the command line: {access, secret}.
export function makeKey(server, ...options) {
  const environment = {
    ...process.env,
    TANSY_SERVER: `http://127.0.0.1:${server.ports.object}`,
    TANSY_ADMIN_URL: `http://127.0.0.1:${server.ports.admin}`,
    TANSY_ACCESS_KEY: keys.access,
    TANSY_SECRET_KEY: keys.secret,
  };
  const said = execFileSync(process.env.TANSY, ["--json", "key", "add", ...options], { env: environment, encoding: "utf8" });
  const made = JSON.parse(said);
  return { access: made.access_key, secret: made.secret_key };
}
