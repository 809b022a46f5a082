import { poll } from "../net/api.js";
import { milliseconds } from "../pure/format.js";
import { t } from "../text.js";
import { Empty, FailureBox, Loading, Name, usePolled } from "../widgets/Common.jsx";

export function Requests() {
  const { value, failure, reload } = usePolled(() => poll("requests"), 1);
  const requests = value?.requests ?? [];
  return (
    <>
      <div class="page-head">
        <h1>{t("page.requests")}</h1>
        <span class="live">{t("requests.live")}</span>
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value && requests.length === 0 && <Empty icon="requests" title={t("requests.empty")} hint={t("requests.emptyHint")} />}
      {requests.length > 0 && (
        <div class="card table-card">
          <table class="stack">
            <thead>
              <tr>
                <th scope="col">{t("requests.request")}</th>
                <th scope="col">{t("requests.operation")}</th>
                <th scope="col">{t("requests.phase")}</th>
                <th scope="col">{t("requests.peer")}</th>
                <th scope="col" class="number">
                  {t("requests.age")}
                </th>
              </tr>
            </thead>
            <tbody>
              {requests.map((request, i) => (
                <tr key={i}>
                  <th scope="row" class="code">
                    <Name>{request.request}</Name>
                  </th>
                  <td data-label={t("requests.operation")}>
                    {request.service} {request.operation}
                  </td>
                  <td data-label={t("requests.phase")}>
                    <span class="tag">{request.phase}</span>
                  </td>
                  <td data-label={t("requests.peer")} class="code">
                    {request.peer}
                  </td>
                  <td data-label={t("requests.age")} class="number">
                    {milliseconds(request.age_ms)}
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
