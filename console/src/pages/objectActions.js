// What is done with files of a folder.
import * as s3 from "../net/s3.js";
import { Failure } from "../net/failure.js";
import { keysBelow } from "../pure/listing.js";
import { lastPart } from "../pure/names.js";
import { t } from "../text.js";
import { tell } from "../widgets/Notices.jsx";

const mostAtOnce = 1000;

// Deletes files and whole folders; `progress` hears how many are gone. Gives their number.
export async function deleteEntries(bucket, entries, progress) {
  let deleted = 0;
  const remove = async (keys) => {
    await s3.deleteObjects(bucket, keys);
    deleted += keys.length;
    progress(deleted);
  };
  const files = entries.filter((entry) => entry.size !== null).map((entry) => entry.key);
  for (let from = 0; from < files.length; from += mostAtOnce) {
    await remove(files.slice(from, from + mostAtOnce));
  }
  for (const folder of entries.filter((entry) => entry.size === null)) {
    for await (const keys of keysBelow((next) => s3.listObjects(bucket, folder.key, { next, folders: false }))) {
      if (keys.length > 0) {
        await remove(keys);
      }
    }
  }
  return deleted;
}

// The copy is there before the old name goes, so that nothing is lost in between.
export async function renameEntry(bucket, from, to) {
  if (from === to) {
    return;
  }
  if (await s3.findObject(bucket, to)) {
    throw new Failure(t("objects.nameTaken"), { code: "taken", status: 409 });
  }
  await s3.copyObject(bucket, from, to);
  await s3.deleteObject(bucket, from);
}

// The browser's own downloads, one per file.
export async function downloadEntries(bucket, entries) {
  const files = entries.filter((entry) => entry.size !== null);
  if (files.length < entries.length) {
    tell(t("objects.noFolders"), { isBad: files.length === 0 });
  }
  const urls = await Promise.all(files.map((entry) => s3.linkTo(bucket, entry.key, { attachment: lastPart(entry.key) })));
  for (const url of urls) {
    const link = document.createElement("a");
    link.href = url;
    link.rel = "noreferrer";
    document.body.append(link);
    link.click();
    link.remove();
    // A second click in the same moment would take the place of the first.
    await new Promise((resolve) => setTimeout(resolve, 300));
  }
}
