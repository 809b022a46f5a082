// What is being uploaded, on every page.
import { useEffect, useRef, useState } from "preact/hooks";
import { bytes } from "../pure/format.js";
import { lastPart, visible } from "../pure/names.js";
import { useStore } from "../store.js";
import { t, texts } from "../text.js";
import { chooseFiles } from "../uploads/choose.js";
import { chosenFiles } from "../uploads/files.js";
import { queue, uploadsTurn } from "../uploads/uploads.js";
import { Name } from "./Common.jsx";
import { Dialog } from "./Dialog.jsx";
import { Icon, IconButton } from "./Icon.jsx";
import { tell } from "./Notices.jsx";

const mostShown = 100;
const order = { exists: 0, failed: 1, running: 2, paused: 3, waiting: 4, lost: 5, done: 6, skipped: 7 };

// Bytes per second over the last seconds.
function useSpeed(items) {
  const samples = useRef([]);
  const sent = items.reduce((sum, item) => sum + item.sent, 0);
  const now = performance.now();
  samples.current = [...samples.current.filter((sample) => now - sample.now < 5000), { now, sent }];
  const [first] = samples.current;
  return now - first.now > 800 ? Math.max(0, ((sent - first.sent) * 1000) / (now - first.now)) : null;
}

export function UploadTray() {
  useStore(uploadsTurn);
  const [isSmall, setSmall] = useState(false);
  const { items } = queue;
  const speed = useSpeed(items);
  const count = (state) => items.filter((item) => item.state === state).length;
  const done = count("done") + count("skipped");
  const active = count("running") + count("waiting");
  const lost = count("lost");
  const wasActive = useRef(0);
  useEffect(() => {
    if (wasActive.current > 0 && active === 0 && count("failed") + count("paused") + count("exists") === 0) {
      tell(t("uploads.finished", { n: count("done") }));
    }
    wasActive.current = active;
  });
  if (items.length === 0) {
    return null;
  }
  const whole = items.reduce((sum, item) => sum + item.size, 0);
  const sent = items.reduce((sum, item) => sum + (item.state === "skipped" ? item.size : item.sent), 0);
  const shown = [...items].sort((a, b) => order[a.state] - order[b.state] || a.id - b.id).slice(0, mostShown);
  return (
    <section class="tray card" aria-label={t("uploads.title")}>
      <header>
        <h2>{t("uploads.title")}</h2>
        <span class="muted" role="status">
          {t("uploads.summary", { done, all: items.length })}
          {active > 0 && speed !== null && ` · ${t("uploads.speed", { speed: bytes(speed) })}`}
        </span>
        {active > 0 && <IconButton name="pause" label={t("uploads.pauseAll")} onClick={() => queue.pauseAll()} />}
        {active === 0 && count("paused") > 0 && (
          <IconButton name="play" label={t("uploads.resumeAll")} onClick={() => queue.resumeAll()} />
        )}
        {active === 0 && done > 0 && <IconButton name="check" label={t("uploads.clear")} onClick={() => queue.clearDone()} />}
        <IconButton
          name={isSmall ? "previous" : "down"}
          class={isSmall ? "turned" : ""}
          aria-expanded={!isSmall}
          label={t(isSmall ? "uploads.showList" : "uploads.hide")}
          onClick={() => setSmall(!isSmall)}
        />
      </header>
      <progress max={whole || 1} value={whole ? sent : done === items.length ? 1 : 0} aria-label={t("uploads.title")} />
      {!isSmall && lost > 0 && <Lost count={lost} />}
      {!isSmall && (
        <ul tabIndex={0} aria-label={t("uploads.title")}>
          {shown.map((item) => (
            <Item key={item.id} item={item} />
          ))}
          {items.length > shown.length && <li class="muted">{t("uploads.more", { n: items.length - shown.length })}</li>}
        </ul>
      )}
      {active === 0 && count("exists") > 0 && <Taken items={items.filter((item) => item.state === "exists")} />}
    </section>
  );
}

function Lost({ count }) {
  const choose = async (folder) => {
    const files = chosenFiles(await chooseFiles({ folder }));
    if (files.length > 0 && queue.addLost(files) === 0) {
      tell(t("uploads.otherFile"), { isBad: true });
    }
  };
  return (
    <div class="lost">
      <p>{t("uploads.lost", { n: count })}</p>
      <div class="buttons">
        <button class="primary" onClick={() => choose(true)}>
          {t("uploads.chooseFolder")}
        </button>
        <button onClick={() => choose(false)}>{t("uploads.chooseFiles")}</button>
        <button onClick={() => queue.forgetLost()}>{t("uploads.forget")}</button>
      </div>
    </div>
  );
}

function wordsOf(item) {
  const sizes = { sent: bytes(item.sent), size: bytes(item.size) };
  if (item.error) {
    return item.error in texts ? t(item.error) : item.error;
  }
  return item.state in { running: 1, paused: 1 }
    ? t(`uploads.${item.state}`, sizes)
    : ["done", "skipped", "waiting"].includes(item.state)
      ? t(`uploads.${item.state}`)
      : bytes(item.size);
}

function Item({ item }) {
  const name = visible(lastPart(item.key));
  const isOpen = ["running", "waiting"].includes(item.state);
  return (
    <li class={`item ${item.state}`}>
      <span class="item-name">
        <Name>{lastPart(item.key)}</Name>
      </span>
      <span class="item-words">{wordsOf(item)}</span>
      {["running", "paused"].includes(item.state) && (
        <progress max={item.size || 1} value={item.sent} aria-label={t("uploads.progress", { name })} />
      )}
      <span class="item-buttons">
        {isOpen && <IconButton name="pause" label={t("uploads.pause", { name })} onClick={() => queue.pause(item)} />}
        {item.state === "paused" && (
          <IconButton name="play" label={t("uploads.resume", { name })} onClick={() => queue.resume(item)} />
        )}
        {item.state === "failed" && !item.isFinal && (
          <IconButton name="reload" label={t("uploads.retry", { name })} onClick={() => queue.resume(item)} />
        )}
        {item.state === "done" ? (
          <Icon name="check" />
        ) : (
          <IconButton name="close" label={t("uploads.remove", { name })} onClick={() => queue.remove(item)} />
        )}
      </span>
    </li>
  );
}

function Taken({ items }) {
  return (
    <Dialog title={t("uploads.existsTitle")} onClose={() => queue.decide("skip")}>
      <p>{t("uploads.existsText", { n: items.length, name: visible(lastPart(items[0].key)) })}</p>
      <footer>
        <button onClick={() => queue.decide("skip")}>{t("uploads.skip")}</button>
        <button class="danger" onClick={() => queue.decide("replace")}>
          {t("uploads.replace")}
        </button>
        <button class="primary" onClick={() => queue.decide("keepBoth")}>
          {t("uploads.keepBoth")}
        </button>
      </footer>
    </Dialog>
  );
}
