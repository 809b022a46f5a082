import { poll, post } from "../net/api.js";
import { duration, moment, number } from "../pure/format.js";
import { locale, t } from "../text.js";
import { Empty, FailureBox, Loading, Name, usePolled } from "../widgets/Common.jsx";
import { Icon } from "../widgets/Icon.jsx";
import { tellFailure } from "../widgets/Notices.jsx";

export function Check() {
  const { value, failure, reload } = usePolled(() => poll("check"), 1);
  const start = () => post("check", {}).catch(tellFailure).then(reload);
  const button = (
    <button class="primary" disabled={value?.running} onClick={start}>
      <Icon name="check" /> {t("check.start")}
    </button>
  );
  return (
    <>
      <div class="page-head">
        <h1>{t("page.check")}</h1>
        {value?.started > 0 && button}
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value?.started === 0 && (
        <Empty icon="check" title={t("check.never")} hint={t("check.hint")}>
          {button}
        </Empty>
      )}
      {value?.running && <Running check={value} />}
      {value?.ended > 0 && !value.running && <Result check={value} />}
    </>
  );
}

function Running({ check }) {
  return (
    <section class="verdict warn" role="status">
      <span class="verdict-icon">
        <Icon name="reload" size={26} />
      </span>
      <div>
        <h2>{t("check.running")}</h2>
        <p>{t("check.lookedAt", { n: check.looked_at })}</p>
      </div>
    </section>
  );
}

const levels = { well: "well", findings: "warn", failed: "bad" };

function Result({ check }) {
  const level = levels[check.result] ?? "bad";
  const values = { n: check.findings, time: moment(check.ended * 1000, locale()), took: duration(check.ended - check.started) };
  return (
    <>
      <section class={`verdict ${level}`} role="status">
        <span class="verdict-icon">
          <Icon name={level === "well" ? "check" : "warning"} size={26} />
        </span>
        <div>
          <h2>{t(`check.result.${level}`, values)}</h2>
          <p>{t("check.when", values)}</p>
          <p>
            <Name>{check.summary}</Name>
          </p>
          {level === "warn" && <p>{t("check.repair")}</p>}
        </div>
      </section>
      {check.lines.length > 0 && (
        <div class="card log" tabIndex={0} role="region" aria-label={t("check.findings")}>
          {check.lines.map((line, i) => (
            <div key={i}>
              <Name>{line}</Name>
            </div>
          ))}
          {check.findings > check.lines.length && (
            <div class="muted">{t("check.more", { count: number(check.findings - check.lines.length, locale()) })}</div>
          )}
        </div>
      )}
    </>
  );
}
