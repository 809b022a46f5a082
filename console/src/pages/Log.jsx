import { useEffect, useRef, useState } from "preact/hooks";
import { poll } from "../net/api.js";
import { t } from "../text.js";
import { Empty, FailureBox, Name, SearchBox, usePolled } from "../widgets/Common.jsx";

const most = 1000;

// Lines are asked for from where the last answer ended. A number that went back means a server that was started anew.
function useLog() {
  const position = useRef(0);
  const lines = useRef([]);
  const { failure, value, reload } = usePolled(async () => {
    const answer = await poll(`log?after=${position.current}`);
    if (answer.next < position.current) {
      position.current = 0;
      return lines.current;
    }
    position.current = answer.next;
    if (answer.lines?.length) {
      lines.current = [...lines.current, ...answer.lines].slice(-most);
    }
    return lines.current;
  }, 1);
  return { failure, lines: value ?? lines.current, isLoaded: value !== null, reload };
}

export function Log() {
  const { failure, lines, isLoaded, reload } = useLog();
  const [filter, setFilter] = useState("");
  const [follows, setFollows] = useState(true);
  const box = useRef(null);
  const shown = filter ? lines.filter((line) => line.toLowerCase().includes(filter.toLowerCase())) : lines;
  useEffect(() => {
    if (follows && box.current) {
      box.current.scrollTop = box.current.scrollHeight;
    }
  });
  return (
    <>
      <div class="page-head">
        <h1>{t("page.log")}</h1>
        <SearchBox id="search" label={t("log.filter")} value={filter} onInput={setFilter} />
        <label class="check">
          <input type="checkbox" checked={follows} onChange={(event) => setFollows(event.target.checked)} /> {t("log.follow")}
        </label>
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {isLoaded && lines.length === 0 && <Empty icon="log" title={t("log.empty")} hint={t("log.emptyHint")} />}
      {lines.length > 0 && shown.length === 0 && <Empty icon="search" title={t("log.noMatch")} hint={t("log.noMatchHint")} />}
      {shown.length > 0 && (
        <div
          class="card log"
          ref={box}
          tabIndex={0}
          role="log"
          aria-live="off"
          aria-label={t("log.lines")}
          onWheel={(event) => event.deltaY < 0 && setFollows(false)}
        >
          {shown.map((line, i) => (
            <div key={i} class={/error/i.test(line) ? "bad" : ""}>
              <Name>{line}</Name>
            </div>
          ))}
        </div>
      )}
    </>
  );
}
