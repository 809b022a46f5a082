import { useEffect, useRef, useState } from "preact/hooks";
import * as s3 from "../net/s3.js";
import { moment } from "../pure/format.js";
import { lastPart, previewType, visible } from "../pure/names.js";
import { locale, t } from "../text.js";
import { Dialog } from "./Dialog.jsx";
import { Icon } from "./Icon.jsx";
import { tell } from "./Notices.jsx";
import { Qr } from "./Qr.jsx";

const times = [
  ["share.hour", 3600],
  ["share.day", 86400],
  ["share.week", 604800],
];

// Pictures, sound and the like open in the browser whatever type they were stored with. A drawing may hold script, and stays what it is.
function shownType(key) {
  return key.toLowerCase().endsWith(".svg") ? "" : previewType(key);
}

export function isLoopback(host) {
  return host === "localhost" || host === "[::1]" || host.startsWith("127.");
}

export function Share({ bucket, entry, onClose }) {
  const [seconds, setSeconds] = useState(86400);
  const [link, setLink] = useState({ url: "", error: "", ends: 0 });
  const field = useRef(null);
  useEffect(() => {
    let isLeft = false;
    s3.linkTo(bucket, entry.key, { seconds, type: shownType(entry.key) }).then(
      (url) => isLeft || setLink({ url, error: "", ends: Date.now() + seconds * 1000 }),
      (failure) => isLeft || setLink({ url: "", error: failure.message, ends: 0 }),
    );
    return () => {
      isLeft = true;
    };
  }, [seconds, bucket, entry.key]);
  const copy = async () => {
    try {
      await navigator.clipboard.writeText(link.url);
      tell(t("share.copied"));
    } catch {
      field.current.focus();
      field.current.select();
      tell(t("share.copyByHand"));
    }
  };
  const host = location.hostname;
  return (
    <Dialog title={t("share.title")} onClose={onClose}>
      <p class="share-name">
        <bdi>{visible(lastPart(entry.key))}</bdi>
      </p>
      <p class="hint">{t("share.text")}</p>
      <fieldset class="segments">
        <legend>{t("share.for")}</legend>
        {times.map(([name, value]) => (
          <label key={name}>
            <input type="radio" name="seconds" checked={seconds === value} onChange={() => setSeconds(value)} />
            <span>{t(name)}</span>
          </label>
        ))}
      </fieldset>
      {link.error && (
        <p class="error" role="alert">
          {link.error}
        </p>
      )}
      {link.url && (
        <div class="share-link">
          <Qr text={link.url} />
          <div>
            <label>
              {t("share.link")}
              <textarea ref={field} readOnly rows={4} value={link.url} dir="ltr" onFocus={(event) => event.target.select()} />
            </label>
            <p class="hint">{t("share.ends", { time: moment(link.ends, locale()) })}</p>
            <button class="primary" onClick={copy}>
              <Icon name="share" /> {t("share.copy")}
            </button>
          </div>
        </div>
      )}
      {isLoopback(host) && (
        <p class="warning">
          <Icon name="warning" size={18} /> {t("share.loopback", { host })}
        </p>
      )}
    </Dialog>
  );
}
