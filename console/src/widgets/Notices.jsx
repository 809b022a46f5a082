// Short words about what has happened, in a corner of the page; read aloud by screen readers.
import { makeStore, useStore } from "../store.js";
import { t } from "../text.js";
import { Icon, IconButton } from "./Icon.jsx";

const notices = makeStore([]);
const shownFor = 6000;
let lastId = 0;

export function tell(words, { isBad = false } = {}) {
  const notice = { id: ++lastId, words, isBad };
  notices.set((all) => [...all.slice(-3), notice]);
  if (!isBad) {
    setTimeout(() => dismiss(notice.id), shownFor);
  }
}

// Failures stay until somebody has read them.
export function tellFailure(failure) {
  if (failure.code !== "aborted" && failure.status !== 401) {
    tell(failure.message, { isBad: true });
  }
}

function dismiss(id) {
  notices.set((all) => all.filter((notice) => notice.id !== id));
}

export function Notices() {
  const all = useStore(notices);
  return (
    <div class="notices" role="status" aria-label={t("app.notice")}>
      {all.map(({ id, words, isBad }) => (
        <div key={id} class={`notice ${isBad ? "bad" : ""}`}>
          <Icon name={isBad ? "warning" : "check"} />
          <bdi>{words}</bdi>
          <IconButton name="close" label={t("app.dismiss")} onClick={() => dismiss(id)} />
        </div>
      ))}
    </div>
  );
}
