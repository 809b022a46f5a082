// A window over the page. The browser keeps the keyboard inside it, and gives the focus back afterwards.
import { useEffect, useRef, useState } from "preact/hooks";
import { t } from "../text.js";
import { IconButton } from "./Icon.jsx";

export function Dialog({ title, onClose, wide = false, children }) {
  const dialog = useRef(null);
  useEffect(() => {
    const element = dialog.current;
    const before = document.activeElement;
    element.showModal();
    return () => {
      element.close();
      before?.focus?.();
    };
  }, []);
  return (
    <dialog
      ref={dialog}
      class={wide ? "wide" : ""}
      aria-labelledby="dialog-title"
      onCancel={(event) => {
        event.preventDefault();
        onClose();
      }}
      onKeyDown={(event) => event.stopPropagation()}
      onClick={(event) => event.target === dialog.current && onClose()}
    >
      <div class="dialog-body">
        <header>
          <h2 id="dialog-title">{title}</h2>
          <IconButton name="close" label={t("app.close")} onClick={onClose} />
        </header>
        {children}
      </div>
    </dialog>
  );
}

// Asks for one text. `problem(value)` names what is wrong with it; `onDone(value)` may fail, and then its words are shown.
export function AskDialog({ title, label, hint, value: start = "", button, problem, onDone, onClose }) {
  return (
    <FormDialog
      title={title}
      button={button}
      onClose={onClose}
      onDone={(form) => {
        const value = form.elements.value.value;
        const wrong = problem(value);
        if (wrong) {
          throw new Error(t(wrong));
        }
        return onDone(value);
      }}
    >
      <label>
        {label}
        <input
          name="value"
          defaultValue={start}
          autocomplete="off"
          spellcheck={false}
          dir="auto"
          autofocus
          aria-describedby="dialog-hint"
        />
      </label>
      <p id="dialog-hint" class="hint">
        {hint}
      </p>
    </FormDialog>
  );
}

export function ConfirmDialog({ title, children, button, danger = true, onDone, onClose }) {
  return (
    <FormDialog title={title} button={button} danger={danger} onClose={onClose} onDone={onDone}>
      {children}
    </FormDialog>
  );
}

function FormDialog({ title, button, danger = false, children, onDone, onClose }) {
  const [error, setError] = useState("");
  const [isBusy, setBusy] = useState(false);
  const submit = async (event) => {
    event.preventDefault();
    setBusy(true);
    setError("");
    try {
      await onDone(event.target);
      onClose();
    } catch (failure) {
      setError(failure.message);
      setBusy(false);
    }
  };
  return (
    <Dialog title={title} onClose={onClose}>
      <form onSubmit={submit}>
        {children}
        {error && (
          <p class="error" role="alert">
            {error}
          </p>
        )}
        <footer>
          <button type="button" onClick={onClose}>
            {t("app.cancel")}
          </button>
          <button class={danger ? "danger" : "primary"} disabled={isBusy}>
            {button}
          </button>
        </footer>
      </form>
    </Dialog>
  );
}
