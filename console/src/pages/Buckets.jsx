import { useState } from "preact/hooks";
import { get, mayWrite } from "../net/api.js";
import * as s3 from "../net/s3.js";
import { bytes, moment, number } from "../pure/format.js";
import { problemOfBucket } from "../pure/names.js";
import { hashOf } from "../pure/route.js";
import { locale, t } from "../text.js";
import { Empty, FailureBox, Loading, Name, usePolled } from "../widgets/Common.jsx";
import { AskDialog, ConfirmDialog } from "../widgets/Dialog.jsx";
import { Icon, IconButton } from "../widgets/Icon.jsx";
import { tell } from "../widgets/Notices.jsx";

async function loadBuckets() {
  const [{ buckets }, times] = await Promise.all([get("buckets"), s3.bucketTimes()]);
  return { buckets: buckets.map((bucket) => ({ ...bucket, created: times.get(bucket.name) })) };
}

export function Buckets() {
  const { value, failure, reload } = usePolled(loadBuckets, 15);
  const [dialog, setDialog] = useState(null);
  const buckets = value?.buckets ?? [];

  const make = async (name) => {
    if (buckets.some((bucket) => bucket.name === name)) {
      throw new Error(t("buckets.taken"));
    }
    await s3.makeBucket(name);
    tell(t("buckets.made", { name }));
    await reload();
  };
  const remove = async (name) => {
    await s3.removeBucket(name);
    tell(t("buckets.removed", { name }));
    await reload();
  };

  return (
    <>
      <div class="page-head">
        <h1>{t("page.buckets")}</h1>
        {mayWrite() && (
          <button class="primary" onClick={() => setDialog({ kind: "make" })}>
            <Icon name="plus" /> {t("buckets.new")}
          </button>
        )}
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value && buckets.length === 0 && (
        <Empty icon="buckets" title={t("buckets.empty")} hint={t("buckets.emptyHint")}>
          <button class="primary" onClick={() => setDialog({ kind: "make" })}>
            <Icon name="plus" /> {t("buckets.new")}
          </button>
        </Empty>
      )}
      {buckets.length > 0 && <BucketTable buckets={buckets} onRemove={(name) => setDialog({ kind: "remove", name })} />}
      {dialog?.kind === "make" && (
        <AskDialog
          title={t("buckets.new")}
          label={t("buckets.name")}
          hint={t("bucket.rules")}
          button={t("buckets.make")}
          problem={problemOfBucket}
          onDone={make}
          onClose={() => setDialog(null)}
        />
      )}
      {dialog?.kind === "remove" && (
        <ConfirmDialog
          title={t("buckets.removeTitle")}
          button={t("buckets.removeButton")}
          onDone={() => remove(dialog.name)}
          onClose={() => setDialog(null)}
        >
          <p>{t("buckets.removeText", { name: dialog.name })}</p>
        </ConfirmDialog>
      )}
    </>
  );
}

function BucketTable({ buckets, onRemove }) {
  return (
    <div class="card table-card">
      <table class="stack">
        <thead>
          <tr>
            <th scope="col">{t("buckets.column.name")}</th>
            <th scope="col" class="number">
              {t("buckets.column.objects")}
            </th>
            <th scope="col" class="number">
              {t("buckets.column.bytes")}
            </th>
            <th scope="col">{t("buckets.column.created")}</th>
            <th scope="col">
              <span class="unseen">{t("buckets.column.actions")}</span>
            </th>
          </tr>
        </thead>
        <tbody>
          {buckets.map((bucket) => (
            <BucketRow key={bucket.name} bucket={bucket} onRemove={onRemove} />
          ))}
        </tbody>
      </table>
    </div>
  );
}

function BucketRow({ bucket, onRemove }) {
  const { name, created, objects } = bucket;
  return (
    <tr>
      <th scope="row">
        <a class="strong" href={hashOf("objects", name)}>
          <Icon name="buckets" /> <Name>{name}</Name>
        </a>
      </th>
      <td class="number" data-label={t("buckets.column.objects")}>
        {number(objects, locale())}
      </td>
      <td class="number" data-label={t("buckets.column.bytes")}>
        {bytes(bucket.bytes)}
      </td>
      <td data-label={t("buckets.column.created")}>{created ? moment(created, locale()) : "–"}</td>
      <td class="actions">
        {mayWrite() && <IconButton name="delete" label={t("buckets.remove", { name })} onClick={() => onRemove(name)} />}
      </td>
    </tr>
  );
}
