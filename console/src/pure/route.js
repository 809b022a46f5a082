// The address of a page is behind the "#": "#/objects/BUCKET/FOLDER/", with each part encoded.

export const pages = ["overview", "objects", "buckets", "unfinished", "requests", "check", "log", "settings"];

// The pages that show what others do, and how the server is run.
export const operatorPages = ["requests", "check", "log", "settings"];

export function parseRoute(hash) {
  const [page, bucket, ...folders] = hash.replace(/^#\/?/, "").split("/");
  if (!pages.includes(page)) {
    return { page: "overview", bucket: "", prefix: "" };
  }
  return { page, bucket: decode(bucket ?? ""), prefix: folders.map(decode).join("/") };
}

export function hashOf(page, bucket = "", prefix = "") {
  const parts = [page];
  if (bucket) {
    parts.push(encodeURIComponent(bucket));
    parts.push(...prefix.split("/").map(encodeURIComponent));
  }
  return `#/${parts.join("/").replace(/\/$/, prefix.endsWith("/") ? "/" : "")}`;
}

// Somebody may have changed the address by hand.
function decode(part) {
  try {
    return decodeURIComponent(part);
  } catch {
    return part;
  }
}
