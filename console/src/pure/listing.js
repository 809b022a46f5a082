// A folder of any size, loaded page by page as it is scrolled.

export class Listing {
  // `fetchPage(next)` gives {entries, next}; `changed` is called when there is something new to show.
  constructor(fetchPage, changed) {
    this.fetchPage = fetchPage;
    this.changed = changed;
    this.entries = [];
    this.next = "";
    this.isDone = false;
    this.isLoading = false;
    this.failure = null;
    this.isStopped = false;
  }

  // Loads the next page; does nothing while one is on its way.
  async more() {
    if (this.isDone || this.isLoading || this.isStopped) {
      return;
    }
    this.isLoading = true;
    this.failure = null;
    this.changed();
    try {
      const page = await this.fetchPage(this.next);
      for (const entry of page.entries) {
        this.entries.push(entry);
      }
      this.next = page.next;
      this.isDone = page.next === "";
    } catch (failure) {
      this.failure = failure;
    }
    this.isLoading = false;
    if (!this.isStopped) {
      this.changed();
    }
  }

  // Loads what is wanted for `row` to be on the screen.
  need(row) {
    return row >= this.entries.length - 200 && this.failure === null ? this.more() : undefined;
  }

  // Answers that are still on their way are not shown any more.
  stop() {
    this.isStopped = true;
  }

  // Takes entries away that are deleted, without loading everything again.
  without(keys) {
    this.entries = this.entries.filter((entry) => !keys.has(entry.key));
    this.changed();
  }
}

// All keys below a prefix, a page at a time.
export async function* keysBelow(fetchPage) {
  let next = "";
  do {
    const page = await fetchPage(next);
    yield page.entries.map((entry) => entry.key);
    next = page.next;
  } while (next !== "");
}
