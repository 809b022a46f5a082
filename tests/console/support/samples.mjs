// Files to store and show, made here, so that none has to be kept.
import { createHash } from "node:crypto";
import { crc32 as zlibCrc32, deflateSync } from "node:zlib";

const table = Array.from({ length: 256 }, (_, n) => {
  let value = n;
  for (let bit = 0; bit < 8; ++bit) {
    value = value & 1 ? 0xedb88320 ^ (value >>> 1) : value >>> 1;
  }
  return value >>> 0;
});

// Node.js 18 has none.
const crc32 =
  zlibCrc32 ?? ((bytes) => (bytes.reduce((crc, byte) => table[(crc ^ byte) & 255] ^ (crc >>> 8), 0xffffffff) ^ 0xffffffff) >>> 0);

function chunk(name, data) {
  const body = Buffer.concat([Buffer.from(name), data]);
  const whole = Buffer.alloc(body.length + 8);
  whole.writeUInt32BE(data.length, 0);
  body.copy(whole, 4);
  whole.writeUInt32BE(crc32(body), body.length + 4);
  return whole;
}

// A picture of hills in the evening; `hue` from 0 to 1 says when.
export function png(width, height, hue = 0.1) {
  const rows = Buffer.alloc(height * (1 + width * 3));
  for (let y = 0; y < height; ++y) {
    for (let x = 0; x < width; ++x) {
      const sky = y / height;
      let rgb = [90 + 150 * sky, 120 + 80 * sky * (1 - hue), 190 - 110 * sky * hue];
      for (let hill = 0; hill < 4; ++hill) {
        const edge = height * (0.45 + 0.14 * hill) + Math.sin(x / (60 - 9 * hill) + hill * 2 + hue * 9) * height * 0.07;
        if (y > edge) {
          rgb = [60 - 12 * hill, 110 - 18 * hill + 60 * hue, 80 - 12 * hill];
        }
      }
      const sun = Math.hypot(x - width * (0.25 + hue / 2), y - height * 0.3);
      if (sun < height * 0.08) {
        rgb = [250, 210, 90];
      }
      rgb.forEach((value, i) =>
        rows.writeUInt8(Math.max(0, Math.min(255, Math.round(value))), y * (1 + width * 3) + 1 + x * 3 + i),
      );
    }
  }
  const head = Buffer.alloc(13);
  head.writeUInt32BE(width, 0);
  head.writeUInt32BE(height, 4);
  head.set([8, 2, 0, 0, 0], 8);
  return Buffer.concat([
    Buffer.from([137, 80, 78, 71, 13, 10, 26, 10]),
    chunk("IHDR", head),
    chunk("IDAT", deflateSync(rows)),
    chunk("IEND", Buffer.alloc(0)),
  ]);
}

// A second of a tone.
export function wav() {
  const samples = 8000;
  const head = Buffer.alloc(44);
  head.write("RIFF", 0);
  head.writeUInt32LE(36 + samples, 4);
  head.write("WAVEfmt ", 8);
  head.writeUInt32LE(16, 16);
  head.writeUInt16LE(1, 20);
  head.writeUInt16LE(1, 22);
  head.writeUInt32LE(samples, 24);
  head.writeUInt32LE(samples, 28);
  head.writeUInt16LE(1, 32);
  head.writeUInt16LE(8, 34);
  head.write("data", 36);
  head.writeUInt32LE(samples, 40);
  return Buffer.concat([head, Buffer.from(Array.from({ length: samples }, (_, i) => 128 + Math.round(60 * Math.sin(i / 3))))]);
}

export const pdf = Buffer.from(
  "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>endobj\n" +
    "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 200 200]>>endobj\ntrailer<</Root 1 0 R>>\n%%EOF\n",
);

// Bytes that look random and are the same in every run.
export function noise(size, seed) {
  const blocks = [];
  for (let made = 0, i = 0; made < size; ++i) {
    const block = createHash("sha512")
      .update(`${seed} ${Math.floor(i / 1024)}`)
      .digest();
    const big = Buffer.alloc(65536, block);
    big.writeUInt32LE(i, 0);
    blocks.push(big);
    made += big.length;
  }
  return Buffer.concat(blocks).subarray(0, size);
}
