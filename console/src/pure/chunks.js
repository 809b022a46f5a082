// A long list as several short ones: each has at most `mostCount` values, whose sizes are at most `mostSize` together. A larger
// value is alone.
export function* inChunks(values, sizeOf, mostCount = 200, mostSize = 60_000) {
  let chunk = [];
  let size = 0;
  for (const value of values) {
    const more = sizeOf(value);
    if (chunk.length > 0 && (chunk.length === mostCount || size + more > mostSize)) {
      yield chunk;
      chunk = [];
      size = 0;
    }
    chunk.push(value);
    size += more;
  }
  if (chunk.length > 0) {
    yield chunk;
  }
}
