// How a large file is cut into parts, and which of them are still to be sent.

const mebibyte = 1024 * 1024;
export const mostObjectBytes = 4294967295;
export const largeFrom = 16 * mebibyte; // smaller files go up in one request
const usualPart = 8 * mebibyte;
const mostParts = 10000;

export function partSizeFor(size) {
  const least = Math.ceil(size / mostParts / mebibyte) * mebibyte;
  return Math.max(usualPart, least);
}

// All parts of a file: [{number, from, to, etag}], the tag of those that the server already has. `stored` is what the server lists:
// [{number, size, etag}]. A part of another size than this plan's is sent again.
export function planParts(size, partSize, stored = []) {
  const known = new Map(stored.map((part) => [part.number, part]));
  const parts = [];
  for (let from = 0, number = 1; from < size; from += partSize, ++number) {
    const to = Math.min(size, from + partSize);
    const there = known.get(number);
    parts.push({ number, from, to, etag: there && there.size === to - from ? there.etag : "" });
  }
  return parts;
}

export function bytesStored(parts) {
  return parts.reduce((sum, part) => sum + (part.etag ? part.to - part.from : 0), 0);
}

export function completionOf(parts) {
  const list = parts.map(({ number, etag }) => `<Part><PartNumber>${number}</PartNumber><ETag>${escapeXml(etag)}</ETag></Part>`);
  return `<CompleteMultipartUpload>${list.join("")}</CompleteMultipartUpload>`;
}

export function removalOf(keys) {
  const list = keys.map((key) => `<Object><Key>${escapeXml(key)}</Key></Object>`);
  return `<Delete><Quiet>true</Quiet>${list.join("")}</Delete>`;
}

export function escapeXml(text) {
  return text.replace(/[&<>"'\r\n\t]/g, (mark) => `&#${mark.charCodeAt(0)};`);
}

// Whether a key can be written in XML 1.0 at all.
export function fitsXml(key) {
  return !/[\u0000-\u0008\u000b\u000c\u000e-\u001f\ufffe\uffff]/.test(key);
}
