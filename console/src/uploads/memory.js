// What an upload needs to go on after the page was closed: kept in the browser, one entry per file.

const start = "tansy-upload:";

export class UploadMemory {
  constructor(storage) {
    this.storage = storage;
  }

  // `record`: {bucket, key, size, mtime, uploadId, partSize, isDone}
  keep(record) {
    try {
      this.storage.setItem(nameOf(record), JSON.stringify(record));
    } catch {
      // There is no room, or the browser forbids it: this one cannot go on after a reload.
    }
  }

  forget(record) {
    try {
      this.storage.removeItem(nameOf(record));
    } catch {
      // As above.
    }
  }

  all() {
    const records = [];
    try {
      for (let i = 0; i < this.storage.length; ++i) {
        const name = this.storage.key(i);
        if (name.startsWith(start)) {
          records.push(JSON.parse(this.storage.getItem(name)));
        }
      }
    } catch {
      return records;
    }
    return records;
  }
}

function nameOf({ bucket, key }) {
  return `${start}${bucket}/${key}`;
}

// Whether a file that somebody chose is the one that was interrupted.
export function isSameFile(record, file) {
  return record.size === file.size && record.mtime === file.lastModified;
}
