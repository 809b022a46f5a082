import { useEffect, useMemo, useReducer, useRef, useState } from "preact/hooks";
import { get, mayWrite } from "../net/api.js";
import * as s3 from "../net/s3.js";
import { Listing } from "../pure/listing.js";
import { crumbs, lastPart, parentOf, problemOfKey, visible } from "../pure/names.js";
import { hashOf } from "../pure/route.js";
import { useStore } from "../store.js";
import { t } from "../text.js";
import { chooseFiles } from "../uploads/choose.js";
import { chosenFiles, droppedFiles } from "../uploads/files.js";
import { finishedCount, queue, uploadsTurn } from "../uploads/uploads.js";
import { Empty, FailureBox, Loading, Name, SearchBox, usePolled } from "../widgets/Common.jsx";
import { AskDialog, ConfirmDialog } from "../widgets/Dialog.jsx";
import { FileGrid } from "../widgets/FileGrid.jsx";
import { Icon, IconButton } from "../widgets/Icon.jsx";
import { tell, tellFailure } from "../widgets/Notices.jsx";
import { Preview } from "../widgets/Preview.jsx";
import { Share } from "../widgets/Share.jsx";
import { deleteEntries, downloadEntries, renameEntry } from "./objectActions.js";

export function Objects({ route }) {
  return route.bucket ? <Folder key={route.bucket} bucket={route.bucket} prefix={route.prefix} /> : <ChooseBucket />;
}

function ChooseBucket() {
  const { value, failure, reload } = usePolled(() => get("buckets"), 0);
  const buckets = value?.buckets ?? [];
  // One bucket needs no choice.
  useEffect(() => {
    if (buckets.length === 1) {
      location.replace(hashOf("objects", buckets[0].name));
    }
  }, [value]);
  return (
    <>
      <div class="page-head">
        <h1>{t("page.objects")}</h1>
      </div>
      {failure && <FailureBox failure={failure} onRetry={reload} />}
      {!value && !failure && <Loading />}
      {value && buckets.length === 0 && (
        <Empty icon="buckets" title={t("buckets.empty")} hint={t("buckets.emptyHint")}>
          <a class="button primary" href={hashOf("buckets")}>
            <Icon name="plus" /> {t("buckets.new")}
          </a>
        </Empty>
      )}
      {buckets.length > 0 && (
        <nav aria-label={t("objects.choose")} class="tiles">
          {buckets.map(({ name }) => (
            <a key={name} class="card tile bucket-tile" href={hashOf("objects", name)}>
              <Icon name="buckets" size={26} />
              <span class="strong">
                <Name>{name}</Name>
              </span>
            </a>
          ))}
        </nav>
      )}
    </>
  );
}

function useListing(bucket, prefix) {
  const [, redraw] = useReducer((count) => count + 1, 0);
  const [round, again] = useReducer((count) => count + 1, 0);
  const listing = useMemo(() => new Listing((next) => s3.listObjects(bucket, prefix, { next }), redraw), [bucket, prefix, round]);
  useEffect(() => {
    listing.more();
    return () => listing.stop();
  }, [listing]);
  return { listing, reload: again };
}

function Folder({ bucket, prefix }) {
  const [search, setSearch] = useState("");
  const [selected, setSelected] = useState(new Set());
  const [dialog, setDialog] = useState(null);
  const { listing, reload } = useListing(bucket, prefix + search);
  const searchInput = useRef(null);
  const isDropping = useDrop(bucket, prefix);
  useEffect(() => setSearch(""), [prefix]);
  useEffect(() => setSelected(new Set()), [prefix, search]);
  useReloadAfterUploads(reload);

  const entries = listing.entries;
  const files = entries.filter((entry) => entry.size !== null);
  const chosen = entries.filter((entry) => selected.has(entry.key));
  const open = (entry) =>
    entry.size === null ? (location.hash = hashOf("objects", bucket, entry.key)) : setDialog({ kind: "show", entry });
  const upload = async (folder) => add(bucket, prefix, chosenFiles(await chooseFiles({ folder })));
  const afterDelete = () => {
    setSelected(new Set());
    reload();
  };
  const act = {
    share: (entry) => setDialog({ kind: "share", entry }),
    rename: (entry) => setDialog({ kind: "rename", entry }),
    delete: (some) => setDialog({ kind: "delete", entries: some }),
    download: (some) => downloadEntries(bucket, some).catch(tellFailure),
  };
  const press = (event, entry) => {
    const target = chosen.length > 0 ? chosen : [entry];
    if (event.key === "Delete" && mayWrite()) {
      act.delete(target);
    } else if (event.key === "F2" && entry.size !== null && mayWrite()) {
      act.rename(entry);
    } else if (event.key === "Backspace" && prefix) {
      location.hash = hashOf("objects", bucket, parentOf(prefix));
    } else {
      return false;
    }
    return true;
  };
  const place = visible(prefix ? lastPart(prefix) : bucket);

  return (
    <div class="folder">
      <div class="page-head">
        <h1 class="unseen">{t("page.objects")}</h1>
        <Path bucket={bucket} prefix={prefix} />
        <SearchBox id="search" label={t("objects.search")} value={search} onInput={setSearch} inputRef={searchInput} />
        <div class="buttons">
          <IconButton name="reload" label={t("objects.reload")} onClick={reload} />
          {mayWrite() && (
            <button onClick={() => setDialog({ kind: "folder" })}>
              <Icon name="newFolder" /> <span class="wide-only">{t("objects.newFolder")}</span>
            </button>
          )}
          {mayWrite() && (
            <button onClick={() => upload(true)}>
              <Icon name="folder" /> <span class="wide-only">{t("objects.uploadFolder")}</span>
            </button>
          )}
          {mayWrite() && (
            <button id="upload-files" class="primary" onClick={() => upload(false)}>
              <Icon name="upload" /> {t("objects.uploadFiles")}
            </button>
          )}
        </div>
      </div>
      <Selection chosen={chosen} act={act} onClear={() => setSelected(new Set())} />
      {listing.failure && <FailureBox failure={listing.failure} onRetry={() => listing.more()} />}
      {entries.length === 0 && listing.isDone && <NothingHere search={search} prefix={prefix} onUpload={() => upload(false)} />}
      {entries.length === 0 && listing.isLoading && <Loading />}
      {entries.length > 0 && (
        <>
          <FileGrid
            key={prefix + search}
            label={t("objects.list", { place })}
            entries={entries}
            isDone={listing.isDone}
            selected={selected}
            onSelect={setSelected}
            onOpen={open}
            onNeed={(row) => listing.need(row)}
            onKey={press}
          />
          <p class="count" role="status">
            {t(listing.isDone ? "objects.count" : "objects.countMore", { n: entries.length })}
          </p>
        </>
      )}
      {isDropping && (
        <div class="drop">
          <Icon name="upload" size={48} />
          <p>{t("objects.drop", { place })}</p>
        </div>
      )}
      <FolderDialog
        dialog={dialog}
        setDialog={setDialog}
        bucket={bucket}
        prefix={prefix}
        files={files}
        act={act}
        reload={reload}
        afterDelete={afterDelete}
      />
    </div>
  );
}

function NothingHere({ search, onUpload }) {
  if (search) {
    return (
      <Empty icon="search" title={t("objects.nothingFound", { prefix: visible(search) })} hint={t("objects.nothingFoundHint")} />
    );
  }
  if (!mayWrite()) {
    return <Empty icon="folder" title={t("objects.empty")} hint={t("objects.emptyReadOnly")} />;
  }
  return (
    <Empty icon="upload" title={t("objects.empty")} hint={t("objects.emptyHint")}>
      <button class="primary" onClick={onUpload}>
        <Icon name="upload" /> {t("objects.upload")}
      </button>
    </Empty>
  );
}

function Path({ bucket, prefix }) {
  const folders = [{ name: bucket, prefix: "" }, ...crumbs(prefix)];
  return (
    <nav class="path" aria-label={t("objects.path")}>
      <ol>
        {folders.map((folder, i) => (
          <li key={folder.prefix}>
            {i > 0 && <Icon name="next" size={14} />}
            <a href={hashOf("objects", bucket, folder.prefix)} aria-current={i === folders.length - 1 ? "page" : undefined}>
              <Name>{folder.name || "/"}</Name>
            </a>
          </li>
        ))}
      </ol>
    </nav>
  );
}

function Selection({ chosen, act, onClear }) {
  if (chosen.length === 0) {
    return null;
  }
  const [only] = chosen;
  const isOneFile = chosen.length === 1 && only.size !== null;
  return (
    <div class="selection" role="toolbar" aria-label={t("objects.selected", { n: chosen.length })}>
      <span role="status">{t("objects.selected", { n: chosen.length })}</span>
      <button onClick={() => act.download(chosen)}>
        <Icon name="download" /> {t("objects.download")}
      </button>
      {isOneFile && (
        <button onClick={() => act.share(only)}>
          <Icon name="share" /> {t("objects.share")}
        </button>
      )}
      {isOneFile && mayWrite() && (
        <button onClick={() => act.rename(only)}>
          <Icon name="rename" /> {t("objects.rename")}
        </button>
      )}
      {mayWrite() && (
        <button class="danger" onClick={() => act.delete(chosen)}>
          <Icon name="delete" /> {t("objects.delete")}
        </button>
      )}
      <IconButton name="close" label={t("objects.clear")} onClick={onClear} />
    </div>
  );
}

function FolderDialog({ dialog, setDialog, bucket, prefix, files, act, reload, afterDelete }) {
  const close = () => setDialog(null);
  switch (dialog?.kind) {
    case "show":
      return (
        <ShowDialog
          entry={dialog.entry}
          bucket={bucket}
          files={files}
          act={act}
          onMove={(entry) => setDialog({ kind: "show", entry })}
          onClose={close}
        />
      );
    case "share":
      return <Share bucket={bucket} entry={dialog.entry} onClose={close} />;
    case "folder":
      return (
        <AskDialog
          title={t("objects.newFolder")}
          label={t("objects.folderName")}
          hint={t("objects.folderHint")}
          button={t("objects.openFolder")}
          onClose={close}
          problem={(name) => (name === "" || name.includes("/") ? "objects.folderSlash" : problemOfKey(prefix + name))}
          onDone={(name) => {
            location.hash = hashOf("objects", bucket, `${prefix}${name}/`);
          }}
        />
      );
    case "rename":
      return (
        <AskDialog
          title={t("objects.renameTitle")}
          label={t("objects.renameLabel")}
          hint={t("objects.renameHint")}
          button={t("objects.renameButton")}
          onClose={close}
          value={dialog.entry.key.slice(prefix.length)}
          problem={(name) => problemOfKey(prefix + name)}
          onDone={async (name) => {
            await renameEntry(bucket, dialog.entry.key, prefix + name);
            tell(t("objects.renamed", { name: visible(name) }));
            afterDelete();
          }}
        />
      );
    case "delete":
      return <DeleteDialog bucket={bucket} entries={dialog.entries} onDone={afterDelete} onFailed={reload} onClose={close} />;
    default:
      return null;
  }
}

function ShowDialog({ entry, bucket, files, act, onMove, onClose }) {
  const at = files.findIndex((file) => file.key === entry.key);
  const changes = [
    { icon: "delete", label: t("objects.delete"), kind: "danger", onClick: () => act.delete([entry]) },
    { icon: "rename", label: t("objects.rename"), onClick: () => act.rename(entry) },
  ];
  const actions = [
    ...(mayWrite() ? changes : []),
    { icon: "share", label: t("objects.share"), onClick: () => act.share(entry) },
    { icon: "download", label: t("objects.download"), kind: "primary", onClick: () => act.download([entry]) },
  ];
  return (
    <Preview
      bucket={bucket}
      entry={entry}
      previous={files[at - 1]}
      next={files[at + 1]}
      onMove={onMove}
      actions={actions}
      onClose={onClose}
    />
  );
}

function DeleteDialog({ bucket, entries, onDone, onFailed, onClose }) {
  const [count, setCount] = useState(0);
  const shown = entries
    .slice(0, 3)
    .map((entry) => visible(lastPart(entry.key)))
    .join(", ");
  const names = entries.length > 3 ? t("objects.andMore", { names: shown, n: entries.length - 3 }) : shown;
  const run = async () => {
    try {
      const deleted = await deleteEntries(bucket, entries, setCount);
      tell(t("objects.deleted", { n: deleted }));
      onDone();
    } catch (failure) {
      onFailed();
      throw failure;
    }
  };
  return (
    <ConfirmDialog
      title={t("objects.deleteTitle", { n: entries.length })}
      button={t("objects.deleteButton")}
      onDone={run}
      onClose={onClose}
    >
      <p>
        <bdi>{t("objects.deleteText", { names })}</bdi>
      </p>
      {count > 0 && <p role="status">{t("objects.deleting", { n: count })}</p>}
    </ConfirmDialog>
  );
}

function add(bucket, prefix, files) {
  const good = files.map(({ path, file }) => ({ key: prefix + path, file }));
  const bad = good.find(({ key }) => problemOfKey(key));
  if (bad) {
    tell(`${visible(bad.key)}: ${t(problemOfKey(bad.key))}`, { isBad: true });
  }
  queue.add(
    bucket,
    good.filter(({ key }) => !problemOfKey(key)),
  );
}

// Files may be dropped anywhere on the page.
function useDrop(bucket, prefix) {
  const [isOver, setOver] = useState(false);
  useEffect(() => {
    const hasFiles = (event) => mayWrite() && event.dataTransfer?.types.includes("Files");
    const over = (event) => {
      if (hasFiles(event)) {
        event.preventDefault();
        setOver(true);
      }
    };
    const leave = (event) => event.relatedTarget === null && setOver(false);
    const drop = (event) => {
      if (hasFiles(event)) {
        event.preventDefault();
        setOver(false);
        droppedFiles(event.dataTransfer).then(
          (files) => add(bucket, prefix, files),
          (failure) => tell(failure.message, { isBad: true }),
        );
      }
    };
    const listeners = { dragover: over, dragleave: leave, drop };
    Object.entries(listeners).forEach(([name, listener]) => window.addEventListener(name, listener));
    return () => Object.entries(listeners).forEach(([name, listener]) => window.removeEventListener(name, listener));
  }, [bucket, prefix]);
  return isOver;
}

// The list shows what has been uploaded, a moment after the last file of several.
function useReloadAfterUploads(reload) {
  useStore(uploadsTurn);
  const done = finishedCount();
  const seen = useRef(done);
  useEffect(() => {
    if (done <= seen.current) {
      seen.current = done;
      return undefined;
    }
    const timer = setTimeout(() => {
      seen.current = done;
      reload();
    }, 400);
    return () => clearTimeout(timer);
  }, [done]);
}
