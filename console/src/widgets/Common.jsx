// Small parts that several pages show.
import { useEffect, useRef, useState } from "preact/hooks";
import { visible } from "../pure/names.js";
import { t } from "../text.js";
import { Icon } from "./Icon.jsx";

// A name of anything, as text: it keeps its own direction, and hides nothing.
export function Name({ children }) {
  return <bdi>{visible(children)}</bdi>;
}

export function Empty({ icon, title, hint, children }) {
  return (
    <div class="empty">
      <span class="empty-icon">
        <Icon name={icon} size={36} />
      </span>
      <h2>
        <bdi>{title}</bdi>
      </h2>
      <p>{hint}</p>
      {children}
    </div>
  );
}

export function FailureBox({ failure, onRetry }) {
  return (
    <div class="failure" role="alert">
      <Icon name="warning" />
      <p>{failure.message}</p>
      {onRetry && (
        <button type="button" onClick={onRetry}>
          {t("app.retry")}
        </button>
      )}
    </div>
  );
}

export function Loading() {
  return (
    <p class="loading" role="status">
      {t("app.loading")}
    </p>
  );
}

export function SearchBox({ label, value, onInput, inputRef, id }) {
  return (
    <div class="search" role="search">
      <Icon name="search" size={18} />
      <input
        id={id}
        ref={inputRef}
        type="search"
        dir="auto"
        placeholder={label}
        aria-label={label}
        value={value}
        spellcheck={false}
        autocomplete="off"
        onInput={(event) => onInput(event.target.value)}
      />
    </div>
  );
}

// Asks `load` at once and then every `seconds` while the page is seen. Gives {value, failure, reload}.
export function usePolled(load, seconds, dependencies = []) {
  const [state, setState] = useState({ value: null, failure: null });
  const again = useRef(() => {});
  useEffect(() => {
    let isLeft = false;
    let timer = 0;
    const ask = async () => {
      clearTimeout(timer);
      try {
        const value = await load();
        isLeft || setState({ value, failure: null });
      } catch (failure) {
        isLeft || setState((old) => ({ value: old.value, failure }));
      }
      if (!isLeft && seconds > 0) {
        clearTimeout(timer);
        timer = setTimeout(() => (document.hidden ? undefined : ask()), seconds * 1000);
      }
    };
    const seen = () => document.hidden || (seconds > 0 && ask());
    again.current = ask;
    document.addEventListener("visibilitychange", seen);
    ask();
    return () => {
      isLeft = true;
      clearTimeout(timer);
      document.removeEventListener("visibilitychange", seen);
    };
  }, dependencies);
  return { ...state, reload: () => again.current() };
}
