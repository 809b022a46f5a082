// Keys of objects, which may hold anything, and their parts between slashes.

// What turns the order of the text around it, or cannot be seen: shown as its number, so that a name looks like what it is.
const unseen = /[\u0000-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g;

export function visible(name) {
  return name.replace(unseen, (mark) => `⟨U+${mark.charCodeAt(0).toString(16).toUpperCase().padStart(4, "0")}⟩`);
}

// The last part of a key or of a folder: "cat.jpg" of "2026/cat.jpg", "2026" of "photos/2026/".
export function lastPart(key) {
  const end = key.endsWith("/") ? key.length - 1 : key.length;
  return key.slice(key.lastIndexOf("/", end - 1) + 1, end);
}

// "a/b/" for "a/b/c" and for "a/b/c/"; "" at the top.
export function parentOf(key) {
  const end = key.endsWith("/") ? key.length - 1 : key.length;
  return key.slice(0, key.lastIndexOf("/", end - 1) + 1);
}

// The folders on the way to a prefix: [{name, prefix}].
export function crumbs(prefix) {
  const found = [];
  for (let at = prefix.indexOf("/"); at !== -1; at = prefix.indexOf("/", at + 1)) {
    const folder = prefix.slice(0, at + 1);
    found.push({ name: lastPart(folder), prefix: folder });
  }
  return found;
}

const mostKeyBytes = 1024;

// The name of a text that says what is wrong with a key; "" when nothing is.
export function problemOfKey(key) {
  if (key === "" || key.endsWith("/")) {
    return "name.empty";
  }
  if (new TextEncoder().encode(key).length > mostKeyBytes) {
    return "name.long";
  }
  return isWellFormed(key) ? "" : "name.broken";
}

// Half of a surrogate pair cannot be sent.
function isWellFormed(text) {
  try {
    encodeURIComponent(text);
    return true;
  } catch {
    return false;
  }
}

export function problemOfBucket(name) {
  const isGood = /^[a-z0-9][a-z0-9.-]{1,61}[a-z0-9]$/.test(name) && !name.includes("..") && !/^\d+\.\d+\.\d+\.\d+$/.test(name);
  return isGood ? "" : "bucket.rules";
}

// "cat (2).jpg" for "cat.jpg": the first of these names that `isTaken` does not know.
export function freeName(key, isTaken) {
  const folder = parentOf(key);
  const name = key.slice(folder.length);
  const dot = name.lastIndexOf(".");
  const stem = dot > 0 ? name.slice(0, dot) : name;
  const ending = dot > 0 ? name.slice(dot) : "";
  for (let count = 2; ; ++count) {
    const candidate = `${folder}${stem} (${count})${ending}`;
    if (!isTaken(candidate)) {
      return candidate;
    }
  }
}

const kinds = {
  picture: ["jpg", "jpeg", "png", "gif", "webp", "avif", "svg", "bmp", "ico"],
  video: ["mp4", "webm", "mov", "m4v", "ogv"],
  audio: ["mp3", "ogg", "oga", "opus", "wav", "flac", "m4a", "aac"],
  pdf: ["pdf"],
  text: [
    "txt",
    "md",
    "log",
    "csv",
    "tsv",
    "json",
    "xml",
    "yml",
    "yaml",
    "toml",
    "ini",
    "conf",
    "html",
    "htm",
    "css",
    "js",
    "mjs",
    "ts",
    "jsx",
    "tsx",
    "py",
    "sh",
    "c",
    "h",
    "cpp",
    "hpp",
    "rs",
    "go",
    "java",
    "sql",
    "diff",
    "patch",
  ],
  archive: ["zip", "gz", "tar", "xz", "bz2", "7z", "zst", "tgz", "deb", "rar"],
};
const kindOfEnding = new Map(Object.entries(kinds).flatMap(([kind, endings]) => endings.map((ending) => [ending, kind])));

// "folder", "picture", "video", "audio", "pdf", "text", "archive" or "file", by the name alone.
export function kindOf(key) {
  if (key.endsWith("/")) {
    return "folder";
  }
  const name = lastPart(key);
  const dot = name.lastIndexOf(".");
  return (dot > 0 && kindOfEnding.get(name.slice(dot + 1).toLowerCase())) || "file";
}

const types = {
  jpg: "image/jpeg",
  jpeg: "image/jpeg",
  svg: "image/svg+xml",
  ico: "image/x-icon",
  mp3: "audio/mpeg",
  mov: "video/quicktime",
  m4v: "video/mp4",
  mp4: "video/mp4",
  webm: "video/webm",
  ogv: "video/ogg",
  oga: "audio/ogg",
  ogg: "audio/ogg",
  opus: "audio/ogg",
  wav: "audio/wav",
  m4a: "audio/mp4",
  flac: "audio/flac",
  aac: "audio/aac",
  pdf: "application/pdf",
  png: "image/png",
  gif: "image/gif",
  webp: "image/webp",
  avif: "image/avif",
  bmp: "image/bmp",
};

// The content type under which a preview is shown: one that holds no script, whatever the object says of itself. "" for none.
export function previewType(key) {
  const kind = kindOf(key);
  if (!["picture", "video", "audio", "pdf"].includes(kind)) {
    return "";
  }
  return types[key.slice(key.lastIndexOf(".") + 1).toLowerCase()] ?? "";
}
