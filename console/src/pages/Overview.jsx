import { isOperator, poll } from "../net/api.js";
import { complete, History, troubles } from "../pure/figures.js";
import { bytes, duration, milliseconds, number, percent } from "../pure/format.js";
import { hashOf } from "../pure/route.js";
import { locale, t } from "../text.js";
import { Chart } from "../widgets/Chart.jsx";
import { FailureBox, Loading, usePolled } from "../widgets/Common.jsx";
import { Icon } from "../widgets/Icon.jsx";

// It goes on over visits of other pages, so that the charts are there when somebody comes back.
const history = new History();

export function Overview({ theme }) {
  const { value, failure, reload } = usePolled(async () => {
    const overview = complete(await poll("overview"));
    history.add(overview);
    return overview;
  }, 2);
  return (
    <>
      <div class="page-head">
        <h1>{t("page.overview")}</h1>
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value && <Verdict overview={value} />}
      {value && <Figures overview={value} theme={theme} />}
    </>
  );
}

function Verdict({ overview }) {
  const found = troubles(overview, history.samples);
  if (found.length === 0) {
    return (
      <section class="verdict well" role="status">
        <span class="verdict-icon">
          <Icon name="check" size={26} />
        </span>
        <div>
          <h2>{t("overview.well")}</h2>
          <p>{t("overview.wellSince", { time: duration(overview.uptime) })}</p>
        </div>
      </section>
    );
  }
  return (
    <section class={`verdict ${found[0].level}`} role="status">
      <span class="verdict-icon">
        <Icon name={found[0].level === "bad" ? "bad" : "warning"} size={26} />
      </span>
      <div>
        <h2>{t("overview.troubles", { n: found.length })}</h2>
        <ul>
          {found.map((trouble) => (
            <li key={trouble.text + trouble.values.part}>{wordsOf(trouble)}</li>
          ))}
        </ul>
      </div>
    </section>
  );
}

function wordsOf({ text, values }) {
  const written = { ...values };
  if ("free" in values) {
    written.free = bytes(values.free);
  }
  if ("share" in values) {
    written.share = percent(values.share, locale());
  }
  return t(text, written);
}

const perSecond = (value) => t("overview.perSecond", { value });
const rate = (value) => perSecond(value === null ? "–" : number(value, locale()));
const byteRate = (value) => perSecond(bytes(value ?? NaN));
const short = (value) => number(value, locale());
const seconds = (value) => milliseconds(value === null || value === undefined ? NaN : value * 1000);

// What is missing is not for this key, or not known yet, and is left out.
function Figures({ overview, theme }) {
  const now = history.last();
  const columns = (...names) => [history.column("time"), ...names.map((name) => history.column(name))];
  const { catalogue, connections, memory, space } = overview;
  return (
    <>
      <div class="tiles">
        {catalogue && (
          <Tile
            icon="objects"
            title={t("overview.stored")}
            value={bytes(catalogue.bytes)}
            href={hashOf("objects")}
            hint={t("overview.objects", { n: catalogue.objects, buckets: t("overview.buckets", { n: catalogue.buckets }) })}
          />
        )}
        {space && (
          <Tile
            icon="buckets"
            title={t("overview.space")}
            value={percent(space.total ? 1 - space.free / space.total : 0, locale())}
            hint={t("overview.free", { free: bytes(space.free), total: bytes(space.total) })}
            share={space.total ? 1 - space.free / space.total : 0}
          />
        )}
        <Tile
          icon="requests"
          title={t("overview.connections")}
          value={number(connections.open, locale())}
          href={isOperator() && hashOf("requests")}
          hint={t("overview.busy", { busy: connections.busy, limit: connections.limit })}
        />
        <Tile
          icon="overview"
          title={t("overview.uptime")}
          value={duration(overview.uptime)}
          href={hashOf("unfinished")}
          hint={catalogue && t("overview.uploads", { n: catalogue.uploads })}
        />
      </div>
      <div class="charts">
        <Panel
          title={t("overview.requests")}
          now={rate(now.requests)}
          theme={theme}
          columns={columns("requests", "errors")}
          format={short}
          series={[{ colour: "--chart-1" }, { colour: "--chart-3" }]}
          legend={[
            ["--chart-1", t("overview.requests"), rate(now.requests)],
            ["--chart-3", t("overview.errors"), rate(now.errors)],
          ]}
        />
        <Panel
          title={t("overview.latency")}
          now={seconds(now.slow)}
          theme={theme}
          columns={columns("slow", "median")}
          format={seconds}
          series={[{ colour: "--chart-2" }, { colour: "--chart-1" }]}
          smallest={0.001}
          legend={[
            ["--chart-1", t("overview.median"), seconds(now.median)],
            ["--chart-2", t("overview.slow"), seconds(now.slow)],
          ]}
        />
        <Panel
          title={t("overview.traffic")}
          now={byteRate(now.bytesOut)}
          theme={theme}
          columns={columns("bytesOut", "bytesIn")}
          format={bytes}
          series={[{ colour: "--chart-1" }, { colour: "--chart-2" }]}
          smallest={1024}
          isBinary
          legend={[
            ["--chart-2", t("overview.in"), byteRate(now.bytesIn)],
            ["--chart-1", t("overview.out"), byteRate(now.bytesOut)],
          ]}
        />
        {memory && (
          <Panel
            title={t("overview.memory")}
            now={bytes(memory.used)}
            theme={theme}
            columns={columns("memory")}
            format={bytes}
            series={[{ colour: "--chart-1" }]}
            smallest={1024 * 1024}
            isBinary
            legend={[
              ["--chart-1", t("overview.memory"), t("overview.memoryOf", { used: bytes(memory.used), limit: bytes(memory.limit) })],
            ]}
          />
        )}
      </div>
    </>
  );
}

function Tile({ icon, title, value, hint, href, share }) {
  const inside = (
    <>
      <span class="tile-title">
        <Icon name={icon} size={18} /> {title}
      </span>
      <span class="tile-value">{value}</span>
      {share !== undefined && <meter min={0} max={1} high={0.9} value={share} aria-label={title} />}
      {hint && <span class="tile-hint">{hint}</span>}
    </>
  );
  return href ? (
    <a class="card tile" href={href}>
      {inside}
    </a>
  ) : (
    <div class="card tile">{inside}</div>
  );
}

function Panel({ title, now, legend, ...chart }) {
  return (
    <section class="card panel">
      <h2>{title}</h2>
      <dl class="legend">
        {legend.map(([colour, name, value]) => (
          <div key={name}>
            <dt>
              <span class={`swatch swatch${colour.slice(1)}`} aria-hidden="true" /> {name}
            </dt>
            <dd>{value}</dd>
          </div>
        ))}
      </dl>
      <Chart name={title} now={now} {...chart} />
    </section>
  );
}
