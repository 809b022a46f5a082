// From the server's counters to what a chart shows.

// A server that is just starting does not know everything yet. It tells its operator alone about catalogue, memory and space, and those
// stay missing: a zero would be read as a figure.
export function complete(overview) {
  const nothing = {
    tasks: { running: 0, limit: 0 },
    parts: {},
  };
  return { ...nothing, ...overview };
}

// A row of samples of the server's figures, the newest last. Counters are turned into rates between neighbours; a restart of the server
// starts its counters again, and leaves a gap.
export class History {
  constructor(most = 300) {
    this.most = most;
    this.samples = [];
  }

  add(overview) {
    const previous = this.samples.at(-1)?.overview;
    if (previous && overview.time <= previous.time) {
      return;
    }
    const sample = { time: overview.time, overview, ...between(previous, overview) };
    this.samples.push(sample);
    if (this.samples.length > this.most) {
      this.samples.shift();
    }
  }

  // A column of the chart.
  column(name) {
    return this.samples.map((sample) => sample[name] ?? null);
  }

  last() {
    return this.samples.at(-1);
  }
}

function between(before, now) {
  const values = {
    requests: null,
    errors: null,
    bytesIn: null,
    bytesOut: null,
    median: null,
    slow: null,
    memory: now.memory?.used ?? null,
    connections: now.connections.open,
    tasks: now.tasks.running,
  };
  if (!before || now.uptime < before.uptime) {
    return values;
  }
  const seconds = now.time - before.time;
  const rate = (later, earlier) => (later >= earlier ? (later - earlier) / seconds : null);
  values.requests = rate(now.requests.total, before.requests.total);
  values.errors = rate(now.requests.errors, before.requests.errors);
  values.bytesIn = rate(now.bytes.in, before.bytes.in);
  values.bytesOut = rate(now.bytes.out, before.bytes.out);
  const counts = now.latency.counts.map((count, i) => count - (before.latency.counts[i] ?? 0));
  values.median = quantile(now.latency.bounds, counts, 0.5);
  values.slow = quantile(now.latency.bounds, counts, 0.99);
  return values;
}

// The value below which `share` of what was counted lies, from counts per class; `bounds` are the upper ends, the last class has none.
// null when nothing was counted.
export function quantile(bounds, counts, share) {
  const total = counts.reduce((sum, count) => sum + count, 0);
  if (!(total > 0)) {
    return null;
  }
  let below = 0;
  for (let i = 0; i < counts.length; ++i) {
    if (below + counts[i] >= share * total && counts[i] > 0) {
      const from = i === 0 ? 0 : bounds[i - 1];
      const to = bounds[i] ?? bounds.at(-1);
      return from + (to - from) * ((share * total - below) / counts[i]);
    }
    below += counts[i];
  }
  return bounds.at(-1);
}

const day = 86400;
const fewBytes = 1024 ** 3;

// What is wrong, the worst first: [{level: "bad"|"warn", text, values}], where `text` names a text.
export function troubles(overview, recent = []) {
  const found = [];
  const add = (level, text, values = {}) => found.push({ level, text, values });
  for (const [part, words] of Object.entries(overview.parts ?? {})) {
    if (words === "trouble") {
      add("bad", "trouble.partOnly", { part }); // the words are for the operator
    } else if (words !== "well" && words !== "") {
      add("bad", "trouble.part", { part, words });
    }
  }
  if (!overview.ready && found.length === 0) {
    add("bad", "trouble.notReady");
  }
  const { space, memory, connections, tasks } = overview;
  if (space?.total > 0 && space.free < Math.min(fewBytes, space.total / 20)) {
    add("bad", "trouble.spaceGone", { free: space.free });
  } else if (space?.total > 0 && space.free < space.total / 10) {
    add("warn", "trouble.spaceLow", { free: space.free });
  }
  if (overview.certificate_end) {
    const left = overview.certificate_end - overview.time;
    if (left <= 0) {
      add("bad", "trouble.certificateEnded");
    } else if (left < 14 * day) {
      add("warn", "trouble.certificateEnds", { days: Math.floor(left / day) });
    }
  }
  if (memory?.limit > 0 && memory.used > memory.limit * 0.9) {
    add("warn", "trouble.memory");
  }
  if (connections.limit > 0 && connections.open > connections.limit * 0.9) {
    add("warn", "trouble.connections", { open: connections.open, limit: connections.limit });
  }
  if (
    tasks.limit > 0 &&
    tasks.running >= tasks.limit &&
    recent.length >= 3 &&
    recent.slice(-3).every((sample) => sample.tasks >= tasks.limit)
  ) {
    add("warn", "trouble.tasks");
  }
  const errors = recent.slice(-15).reduce((sum, sample) => sum + (sample.errors ?? 0), 0);
  const requests = recent.slice(-15).reduce((sum, sample) => sum + (sample.requests ?? 0), 0);
  if (requests > 1 && errors > requests / 20) {
    add("warn", "trouble.errors", { share: errors / requests });
  }
  return found.sort((a, b) => (a.level === b.level ? 0 : a.level === "bad" ? -1 : 1));
}
