import { useState } from "preact/hooks";
import { get, mayWrite } from "../net/api.js";
import * as s3 from "../net/s3.js";
import { moment } from "../pure/format.js";
import { locale, t } from "../text.js";
import { Empty, FailureBox, Loading, Name, usePolled } from "../widgets/Common.jsx";
import { ConfirmDialog } from "../widgets/Dialog.jsx";
import { IconButton } from "../widgets/Icon.jsx";
import { tell } from "../widgets/Notices.jsx";
import { visible } from "../pure/names.js";

async function loadUploads() {
  const { buckets } = await get("buckets");
  const lists = await Promise.all(buckets.map((bucket) => s3.listUploads(bucket.name)));
  return lists.flat().sort((a, b) => (a.time < b.time ? -1 : 1));
}

export function Unfinished() {
  const { value, failure, reload } = usePolled(loadUploads, 10);
  const [chosen, setChosen] = useState(null);
  const abort = async () => {
    await s3.abortUpload(chosen.bucket, chosen.key, chosen.id);
    tell(t("unfinished.aborted"));
    await reload();
  };
  return (
    <>
      <div class="page-head">
        <h1>{t("page.unfinished")}</h1>
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value?.length === 0 && <Empty icon="unfinished" title={t("unfinished.empty")} hint={t("unfinished.emptyHint")} />}
      {value?.length > 0 && (
        <div class="card table-card">
          <table class="stack">
            <thead>
              <tr>
                <th scope="col">{t("unfinished.key")}</th>
                <th scope="col">{t("unfinished.bucket")}</th>
                <th scope="col">{t("unfinished.begun")}</th>
                <th scope="col">
                  <span class="unseen">{t("unfinished.actions")}</span>
                </th>
              </tr>
            </thead>
            <tbody>
              {value.map((upload) => (
                <tr key={upload.id}>
                  <th scope="row">
                    <Name>{upload.key}</Name>
                  </th>
                  <td data-label={t("unfinished.bucket")}>
                    <Name>{upload.bucket}</Name>
                  </td>
                  <td data-label={t("unfinished.begun")}>{moment(upload.time, locale())}</td>
                  <td class="actions">
                    {mayWrite() && (
                      <IconButton
                        name="close"
                        label={t("unfinished.abort", { name: visible(upload.key) })}
                        onClick={() => setChosen(upload)}
                      />
                    )}
                  </td>
                </tr>
              ))}
            </tbody>
          </table>
        </div>
      )}
      {chosen && (
        <ConfirmDialog
          title={t("unfinished.abortTitle")}
          button={t("unfinished.abortButton")}
          onDone={abort}
          onClose={() => setChosen(null)}
        >
          <p>{t("unfinished.abortText", { name: visible(chosen.key) })}</p>
        </ConfirmDialog>
      )}
    </>
  );
}
