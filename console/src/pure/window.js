// Which rows of a very long list are on the screen. Browsers stop at some ten million pixels, so a list that is longer is
// shown on a shorter scale.

export const mostPixels = 12_000_000;

// `top` is the scroll position. Gives the first row and the number of rows to draw, where the first of them stands, and the height of the
// whole.
export function visibleRows(rows, rowHeight, top, viewport, margin = 6) {
  const whole = rows * rowHeight;
  const height = Math.min(whole, mostPixels);
  const scale = whole > height ? (whole - viewport) / (height - viewport) : 1;
  const from = Math.min(Math.max(0, top * scale), Math.max(0, whole - viewport));
  const first = Math.max(0, Math.floor(from / rowHeight) - margin);
  const last = Math.min(rows, Math.ceil((from + viewport) / rowHeight) + margin);
  return { first, count: last - first, offset: top + first * rowHeight - from, height };
}

// The scroll position at which a row is whole on the screen; the present one when it is.
export function scrollTo(row, rows, rowHeight, top, viewport) {
  const whole = rows * rowHeight;
  const height = Math.min(whole, mostPixels);
  const scale = whole > height ? (whole - viewport) / (height - viewport) : 1;
  const from = top * scale;
  if (row * rowHeight < from) {
    return (row * rowHeight) / scale;
  }
  if ((row + 1) * rowHeight > from + viewport) {
    return ((row + 1) * rowHeight - viewport) / scale;
  }
  return top;
}
