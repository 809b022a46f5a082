// One file: what is in it where a browser can show it, and what one can do with it.
import { useEffect, useState } from "preact/hooks";
import * as s3 from "../net/s3.js";
import { bytes, moment } from "../pure/format.js";
import { kindOf, lastPart, previewType, visible } from "../pure/names.js";
import { locale, t } from "../text.js";
import { Loading } from "./Common.jsx";
import { Dialog } from "./Dialog.jsx";
import { Icon, IconButton } from "./Icon.jsx";

const textBytes = 256 * 1024;

export function Preview({ bucket, entry, previous, next, onMove, actions, onClose }) {
  const press = (event) => {
    if (event.target.closest("video, audio, textarea, pre")) {
      return;
    }
    if (event.key === "ArrowLeft" && previous) {
      onMove(previous);
    } else if (event.key === "ArrowRight" && next) {
      onMove(next);
    }
  };
  return (
    <Dialog title={visible(lastPart(entry.key))} onClose={onClose} wide>
      <div class="preview" onKeyDown={press}>
        <IconButton name="previous" label={t("preview.previous")} disabled={!previous} onClick={() => onMove(previous)} />
        <div class="preview-body">
          <Content key={entry.key} bucket={bucket} entry={entry} />
        </div>
        <IconButton name="next" label={t("preview.next")} disabled={!next} onClick={() => onMove(next)} />
      </div>
      <dl class="facts">
        <div>
          <dt>{t("preview.key")}</dt>
          <dd class="code">
            <bdi>{visible(entry.key)}</bdi>
          </dd>
        </div>
        <div>
          <dt>{t("preview.size")}</dt>
          <dd>{bytes(entry.size)}</dd>
        </div>
        <div>
          <dt>{t("preview.changed")}</dt>
          <dd>{moment(entry.time, locale())}</dd>
        </div>
      </dl>
      <footer>
        {actions.map(({ icon, label, onClick, kind }) => (
          <button key={label} class={kind} onClick={onClick}>
            <Icon name={icon} /> {label}
          </button>
        ))}
      </footer>
    </Dialog>
  );
}

function Content({ bucket, entry }) {
  const kind = kindOf(entry.key);
  if (kind === "text") {
    return <Text bucket={bucket} entry={entry} />;
  }
  return previewType(entry.key) ? (
    <Media bucket={bucket} entry={entry} kind={kind} />
  ) : (
    <NoPreview kind={kind} words={t("preview.none")} />
  );
}

function NoPreview({ kind, words }) {
  return (
    <div class="no-preview">
      <Icon name={kind} size={56} />
      <p>{words}</p>
    </div>
  );
}

function Text({ bucket, entry }) {
  const [state, setState] = useState(null);
  useEffect(() => {
    let isLeft = false;
    s3.readStart(bucket, entry.key, textBytes).then(
      (text) => isLeft || setState(text),
      (failure) => isLeft || setState({ failure }),
    );
    return () => {
      isLeft = true;
    };
  }, [bucket, entry.key]);
  if (!state) {
    return <Loading />;
  }
  if (state.failure) {
    return <NoPreview kind="text" words={state.failure.message} />;
  }
  return (
    <>
      <pre tabIndex={0} dir="auto" role="region" aria-label={t("preview.of", { name: visible(lastPart(entry.key)) })}>
        {visibleText(state.text)}
      </pre>
      {state.isCut && <p class="hint">{t("preview.cut")}</p>}
    </>
  );
}

// Lines and tabs stay; what hides or turns text does not.
function visibleText(text) {
  return text
    .split("\n")
    .map((line) => line.replace(/\r$/, "").split("\t").map(visible).join("\t"))
    .join("\n");
}

function Media({ bucket, entry, kind }) {
  const [url, setUrl] = useState("");
  const [words, setWords] = useState("");
  useEffect(() => {
    let isLeft = false;
    s3.linkTo(bucket, entry.key, { type: previewType(entry.key) }).then(
      (link) => isLeft || setUrl(link),
      (failure) => isLeft || setWords(failure.message),
    );
    return () => {
      isLeft = true;
    };
  }, [bucket, entry.key]);
  const label = t("preview.of", { name: visible(lastPart(entry.key)) });
  const failed = () => setWords(t("preview.failed"));
  if (words) {
    return <NoPreview kind={kind} words={words} />;
  }
  if (!url) {
    return <Loading />;
  }
  switch (kind) {
    case "picture":
      return <img src={url} alt={label} onError={failed} />;
    case "video":
      return <video src={url} controls aria-label={label} onError={failed} />;
    case "audio":
      return <audio src={url} controls aria-label={label} onError={failed} />;
    default:
      return <iframe src={url} title={label} />;
  }
}
