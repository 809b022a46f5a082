import { useState } from "preact/hooks";
import { get } from "../net/api.js";
import { t } from "../text.js";
import { FailureBox, Loading, Name, SearchBox, usePolled } from "../widgets/Common.jsx";

function written(value) {
  return Array.isArray(value)
    ? value.join(", ")
    : value === null || value === undefined
      ? ""
      : typeof value === "object"
        ? JSON.stringify(value)
        : String(value);
}

export function Settings() {
  const { value, failure, reload } = usePolled(() => get("settings"), 0);
  const [filter, setFilter] = useState("");
  const settings = Object.entries(value?.settings ?? value ?? {});
  const shown = settings.filter(([name]) => name.includes(filter.trim().toLowerCase()));
  return (
    <>
      <div class="page-head">
        <h1>{t("page.settings")}</h1>
        <SearchBox id="search" label={t("settings.filter")} value={filter} onInput={setFilter} />
      </div>
      <p class="hint">{t("settings.hint")}</p>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value && (
        <div class="card table-card">
          <table>
            <thead>
              <tr>
                <th scope="col">{t("settings.name")}</th>
                <th scope="col">{t("settings.value")}</th>
              </tr>
            </thead>
            <tbody>
              {shown.map(([name, setting]) => (
                <tr key={name}>
                  <th scope="row" class="code">
                    {name}
                  </th>
                  <td class="code">
                    {written(setting) === "" ? <span class="muted">{t("settings.none")}</span> : <Name>{written(setting)}</Name>}
                  </td>
                </tr>
              ))}
            </tbody>
          </table>
        </div>
      )}
    </>
  );
}
