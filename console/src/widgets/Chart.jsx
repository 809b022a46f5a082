// A small live chart. Its last value is also there as words, for those who do not see it.
import uPlot from "uplot";
import "uplot/dist/uPlot.min.css";
import { useEffect, useRef } from "preact/hooks";
import { locale, t } from "../text.js";

const height = 120;
const leastSeconds = 60;
const binarySteps = Array.from({ length: 50 }, (_, i) => 2 ** i);

function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// The colours of the axes' texts and lines of a canvas, which knows no style sheet.
function optionsFor(width, { series, format, smallest = 1, isBinary = false }) {
  const grid = { stroke: colour("--line"), width: 1 };
  const clock = new Intl.DateTimeFormat(locale(), { hour: "2-digit", minute: "2-digit", second: "2-digit" });
  return {
    width,
    height,
    legend: { show: false },
    cursor: { y: false, points: { size: 6 } },
    padding: [8, 8, 0, 0],
    scales: {
      x: { range: (_, low, high) => [Math.min(low, high - leastSeconds), high] },
      y: { range: (_, low, high) => [0, Math.max(smallest, (high ?? 0) * 1.15)] },
    },
    axes: [
      {
        stroke: colour("--muted"),
        grid: { show: false },
        ticks: { show: false },
        size: 24,
        space: 80,
        font: "11px system-ui",
        values: (_, times) => times.map((time) => clock.format(new Date(time * 1000))),
      },
      {
        stroke: colour("--muted"),
        grid,
        ticks: { show: false },
        size: 64,
        space: 34,
        font: "11px system-ui",
        values: (_, values) => values.map(format),
        ...(isBinary ? { incrs: binarySteps } : {}),
      },
    ],
    series: [
      {},
      ...series.map(({ colour: name }, i) => ({
        stroke: colour(name),
        width: 2,
        points: { show: false },
        spanGaps: false,
        fill: i === 0 ? `${colour(name)}22` : undefined,
      })),
    ],
  };
}

// `columns`: [times, values...]; `series`: [{colour}]; `isBinary`: the axis counts in powers of two.
export function Chart({ name, now, columns, theme, ...shape }) {
  const place = useRef(null);
  const chart = useRef(null);
  useEffect(() => {
    const element = place.current;
    chart.current = new uPlot(optionsFor(element.clientWidth, shape), columns, element);
    const observer = new ResizeObserver(() => chart.current.setSize({ width: element.clientWidth, height }));
    observer.observe(element);
    return () => {
      observer.disconnect();
      chart.current.destroy();
    };
  }, [theme]);
  useEffect(() => chart.current.setData(columns), [columns]);
  return <div class="chart" ref={place} role="img" aria-label={t("overview.chart", { name, now })} />;
}
