import assert from "node:assert/strict";
import { test } from "node:test";
import { complete, History, quantile, troubles } from "../src/pure/figures.js";

function overview(changes = {}) {
  return {
    time: 1000,
    uptime: 500,
    ready: true,
    parts: { database: "well", storage: "well", space: "well" },
    requests: { total: 100, errors: 0 },
    bytes: { in: 0, out: 0 },
    connections: { open: 3, busy: 1, limit: 1000 },
    tasks: { running: 0, limit: 4 },
    memory: { used: 10, limit: 1000 },
    space: { free: 500 * 1024 ** 3, total: 1000 * 1024 ** 3 },
    latency: { bounds: [0.001, 0.01, 0.1], counts: [0, 0, 0, 0] },
    certificate_end: 1000 + 365 * 86400,
    ...changes,
  };
}

test("counters become rates between two samples", () => {
  const history = new History();
  history.add(overview());
  history.add(
    overview({
      time: 1002,
      uptime: 502,
      requests: { total: 150, errors: 4 },
      bytes: { in: 2048, out: 0 },
      latency: { bounds: [0.001, 0.01, 0.1], counts: [50, 0, 0, 0] },
    }),
  );
  assert.deepEqual(history.column("requests"), [null, 25]);
  assert.deepEqual(history.column("errors"), [null, 2]);
  assert.deepEqual(history.column("bytesIn"), [null, 1024]);
  assert.equal(history.last().median, 0.0005);
});

test("a restart of the server leaves a gap, not a negative rate", () => {
  const history = new History();
  history.add(overview({ requests: { total: 1000, errors: 9 } }));
  history.add(overview({ time: 1010, uptime: 3, requests: { total: 5, errors: 0 } }));
  assert.deepEqual(history.column("requests"), [null, null]);
  assert.deepEqual(history.column("memory"), [10, 10]);
});

test("a sample that came twice counts once, and old ones go", () => {
  const history = new History(3);
  for (const time of [1, 2, 2, 3, 4]) {
    history.add(overview({ time, uptime: time }));
  }
  assert.deepEqual(history.column("time"), [2, 3, 4]);
});

test("quantiles lie within the class that holds them", () => {
  assert.equal(quantile([1, 2, 4], [0, 10, 0, 0], 0.5), 1.5);
  assert.equal(quantile([1, 2, 4], [0, 0, 0, 7], 0.99), 4);
  assert.equal(quantile([1, 2, 4], [0, 0, 0, 0], 0.5), null);
});

test("what is wrong is said, the worst first, and nothing when all is well", () => {
  assert.deepEqual(troubles(overview()), []);
  const named = (changes) => troubles(overview(changes)).map((trouble) => trouble.text);
  assert.deepEqual(named({ ready: false, parts: { database: "no answer for 10 seconds", storage: "well" } }), ["trouble.part"]);
  assert.deepEqual(named({ ready: false }), ["trouble.notReady"]);
  assert.deepEqual(named({ space: { free: 1000, total: 1000 * 1024 ** 3 } }), ["trouble.spaceGone"]);
  assert.deepEqual(named({ space: { free: 90 * 1024 ** 3, total: 1000 * 1024 ** 3 } }), ["trouble.spaceLow"]);
  assert.deepEqual(named({ certificate_end: 999 }), ["trouble.certificateEnded"]);
  assert.deepEqual(named({ certificate_end: 1000 + 86400 }), ["trouble.certificateEnds"]);
  assert.deepEqual(named({ certificate_end: 0 }), []);
  assert.deepEqual(named({ memory: { used: 950, limit: 1000 } }), ["trouble.memory"]);
  assert.deepEqual(named({ connections: { open: 950, busy: 1, limit: 1000 }, parts: { storage: "gone" } }), [
    "trouble.part",
    "trouble.connections",
  ]);
});

test("many refused requests are a warning", () => {
  const recent = [{ requests: 100, errors: 10, tasks: 0 }];
  assert.deepEqual(
    troubles(overview(), recent).map((trouble) => trouble.text),
    ["trouble.errors"],
  );
  assert.deepEqual(troubles(overview(), [{ requests: 100, errors: 1, tasks: 0 }]), []);
});

test("a server that does not know its load yet is shown all the same", () => {
  const young = overview();
  delete young.tasks;
  delete young.catalogue;
  new History().add(complete(young));
  assert.deepEqual(troubles(complete(young)), []);
  assert.equal(complete(overview()).tasks.limit, 4);
});

test("a key of somebody else sees what it is told, and no zeros for the rest", () => {
  const told = overview({ ready: false, parts: { database: "well", storage: "trouble" } });
  for (const name of ["catalogue", "memory", "space", "certificate_end"]) {
    delete told[name];
  }
  const shown = complete(told);
  const history = new History();
  history.add(shown);
  assert.deepEqual(history.column("memory"), [null]);
  assert.ok(!("catalogue" in shown) && !("space" in shown) && !("memory" in shown));
  assert.deepEqual(troubles(shown, history.samples), [{ level: "bad", text: "trouble.partOnly", values: { part: "storage" } }]);
  assert.deepEqual(troubles({ ...shown, ready: true, parts: { database: "well" } }, history.samples), []);
});
