// Failures as people read them.
import { t, texts } from "../text.js";

export class Failure extends Error {
  // `code` is one of the storage's, or a word of ours; `status` 0 when no answer came.
  constructor(message, { code = "", status = 0, retryAfter = 0 } = {}) {
    super(message);
    this.code = code;
    this.status = status;
    this.retryAfter = retryAfter;
  }

  // Whether the same request may succeed a little later.
  get isPassing() {
    return (
      this.code !== "aborted" &&
      (this.status === 0 || this.status === 429 || (this.status >= 500 && this.status !== 507 && this.status !== 501))
    );
  }
}

export function aborted() {
  return new Failure("aborted", { code: "aborted" });
}

// The text for a code of the storage, else its message, else its status.
export function wordsOf(code, message, status) {
  if (`error.${code}` in texts) {
    return t(`error.${code}`);
  }
  return message ? t("error.message", { message }) : t("error.status", { status });
}
