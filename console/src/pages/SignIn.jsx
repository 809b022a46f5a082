import { useState } from "preact/hooks";
import { sessionEnded, signIn } from "../net/api.js";
import { duration } from "../pure/format.js";
import { useStore } from "../store.js";
import { t } from "../text.js";
import { Flower, Icon, IconButton } from "../widgets/Icon.jsx";

function wordsFor(failure) {
  if (failure.status === 401) {
    return t("signIn.wrong");
  }
  if (failure.status === 429) {
    return t("signIn.tooMany", { wait: duration(failure.retryAfter || 60) });
  }
  return failure.message;
}

export function SignIn({ preferences }) {
  const [error, setError] = useState("");
  const [isBusy, setBusy] = useState(false);
  const [isShown, setShown] = useState(false);
  const hasEnded = useStore(sessionEnded);
  const isSecure = globalThis.isSecureContext;

  const submit = async (event) => {
    event.preventDefault();
    const { key, secret } = event.target.elements;
    setBusy(true);
    setError("");
    try {
      if (!key.value || !secret.value) {
        throw Object.assign(new Error(), { status: 401 });
      }
      await signIn(key.value.trim(), secret.value.trim());
    } catch (failure) {
      setError(wordsFor(failure));
      setBusy(false);
      secret.focus();
      secret.select();
    }
  };

  return (
    <main class="sign-in">
      <form onSubmit={submit} class="card" autocomplete="on">
        <div class="brand">
          <Flower size={56} />
          <div>
            <h1>{t("app.title")}</h1>
            <p>{t("app.tagline")}</p>
          </div>
        </div>
        {hasEnded && !error && (
          <p class="hint" role="status">
            {t("signIn.ended")}
          </p>
        )}
        <label>
          {t("signIn.key")}
          <input name="key" autocomplete="username" autocapitalize="none" spellcheck={false} autofocus required />
        </label>
        <label for="secret">{t("signIn.secret")}</label>
        <div class="secret">
          <input
            id="secret"
            name="secret"
            type={isShown ? "text" : "password"}
            autocomplete="current-password"
            autocapitalize="none"
            spellcheck={false}
            required
            aria-describedby="where"
          />
          <IconButton
            name="eye"
            label={t(isShown ? "signIn.hide" : "signIn.show")}
            aria-pressed={isShown}
            onClick={() => setShown(!isShown)}
          />
        </div>
        {error && (
          <p class="error" role="alert">
            <Icon name="warning" size={18} /> {error}
          </p>
        )}
        {!isSecure && (
          <p class="error" role="alert">
            {t("signIn.insecure")}
          </p>
        )}
        <button class="primary" disabled={isBusy || !isSecure}>
          {t(isBusy ? "signIn.busy" : "signIn.button")}
        </button>
        <p id="where" class="hint">
          {t("signIn.where")}
        </p>
      </form>
      {preferences}
    </main>
  );
}
