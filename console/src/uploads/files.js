// Files out of what a browser gives: a choice, or what was dropped, folders included.

// [{path, file}]; the path has the folders that were chosen or dropped.
export function chosenFiles(list) {
  return Array.from(list, (file) => ({ path: file.webkitRelativePath || file.name, file }));
}

// Has to be called while the drop is handled: the browser forgets what was dropped afterwards.
export async function droppedFiles(transfer) {
  const entries = Array.from(transfer.items, (item) => item.webkitGetAsEntry?.()).filter(Boolean);
  if (entries.length === 0) {
    return chosenFiles(transfer.files);
  }
  const files = [];
  for (const entry of entries) {
    await walk(entry, files);
  }
  return files;
}

async function walk(entry, files) {
  if (entry.isFile) {
    const file = await new Promise((resolve, reject) => entry.file(resolve, reject));
    files.push({ path: entry.fullPath.replace(/^\//, ""), file });
    return;
  }
  const reader = entry.createReader();
  for (;;) {
    const some = await new Promise((resolve, reject) => reader.readEntries(resolve, reject));
    if (some.length === 0) {
      return;
    }
    for (const child of some) {
      await walk(child, files);
    }
  }
}
