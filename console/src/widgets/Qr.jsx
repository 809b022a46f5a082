// A QR code as one path, dark on light whatever the colours of the page are: cameras want it so.
import makeCode from "qrcode-generator";
import { t } from "../text.js";

const margin = 4;

function pathOf(text) {
  const code = makeCode(0, "L");
  code.addData(text);
  code.make();
  const size = code.getModuleCount();
  let path = "";
  for (let row = 0; row < size; ++row) {
    for (let column = 0; column < size; ++column) {
      if (code.isDark(row, column)) {
        path += `M${column + margin} ${row + margin}h1v1h-1z`;
      }
    }
  }
  return { path, side: size + 2 * margin };
}

export function Qr({ text }) {
  const { path, side } = pathOf(text);
  return (
    <svg class="qr" viewBox={`0 0 ${side} ${side}`} role="img" aria-label={t("share.qr")} shape-rendering="crispEdges">
      <rect width={side} height={side} fill="#fff" />
      <path d={path} fill="#000" />
    </svg>
  );
}
