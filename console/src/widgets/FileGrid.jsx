// The list of a folder: any number of entries, of which only those on the screen are drawn. The keyboard moves in it as in a file manager.
import { useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import { bytes, moment } from "../pure/format.js";
import { kindOf, lastPart } from "../pure/names.js";
import { scrollTo, visibleRows } from "../pure/window.js";
import { locale, t } from "../text.js";
import { Name } from "./Common.jsx";
import { Icon } from "./Icon.jsx";

const rowHeight = 44;
const headHeight = 40; // stays above the rows

function viewOf(element) {
  return { top: element.scrollTop, height: element.clientHeight - headHeight };
}

export function FileGrid({ label, entries, isDone, selected, onSelect, onOpen, onNeed, onKey }) {
  const box = useRef(null);
  const anchor = useRef(0);
  const [view, setView] = useState({ top: 0, height: 600 });
  const [active, setActive] = useState(0);
  const row = Math.min(active, Math.max(0, entries.length - 1));
  const window = visibleRows(entries.length, rowHeight, view.top, view.height);

  useLayoutEffect(() => {
    const look = () => setView(viewOf(box.current));
    const observer = new ResizeObserver(look);
    observer.observe(box.current);
    look();
    return () => observer.disconnect();
  }, []);
  useEffect(() => onNeed(window.first + window.count));

  const select = (from, to) =>
    onSelect(new Set(entries.slice(Math.min(from, to), Math.max(from, to) + 1).map((entry) => entry.key)));
  const toggle = (index) => {
    const next = new Set(selected);
    next.delete(entries[index].key) || next.add(entries[index].key);
    onSelect(next);
  };
  const move = (to, isRange) => {
    const target = Math.max(0, Math.min(entries.length - 1, to));
    setActive(target);
    box.current.scrollTop = scrollTo(target, entries.length, rowHeight, box.current.scrollTop, viewOf(box.current).height);
    if (isRange) {
      select(anchor.current, target);
    } else {
      anchor.current = target;
    }
  };
  const page = Math.max(1, Math.floor(view.height / rowHeight) - 1);
  const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -entries.length, End: entries.length };

  const press = (event) => {
    if (entries.length === 0 || event.altKey) {
      return;
    }
    if (event.key in steps) {
      move(row + steps[event.key], event.shiftKey);
    } else if (event.key === " ") {
      toggle(row);
    } else if (event.key === "Enter") {
      onOpen(entries[row]);
    } else if (event.key === "a" && (event.ctrlKey || event.metaKey)) {
      select(0, entries.length - 1);
    } else if (!onKey(event, entries[row])) {
      return;
    }
    event.preventDefault();
  };
  const click = (event, index) => {
    setActive(index);
    if (event.shiftKey) {
      select(anchor.current, index);
    } else if (event.ctrlKey || event.metaKey || event.target.closest(".pick")) {
      anchor.current = index;
      toggle(index);
    } else {
      anchor.current = index;
      onOpen(entries[index]);
    }
  };

  return (
    <div class="card grid-card">
      <div
        class="grid"
        ref={box}
        role="grid"
        aria-label={label}
        aria-multiselectable="true"
        aria-rowcount={isDone ? entries.length + 1 : -1}
        aria-colcount={4}
        tabIndex={0}
        aria-activedescendant={entries.length > 0 ? `row-${row}` : undefined}
        onKeyDown={press}
        onScroll={() => setView(viewOf(box.current))}
      >
        <div class="grid-head" role="row" aria-rowindex={1}>
          <span role="columnheader" class="pick">
            <span class="unseen">{t("objects.pick")}</span>
          </span>
          <span role="columnheader" class="cell-name">
            {t("objects.name")}
          </span>
          <span role="columnheader" class="cell-size">
            {t("objects.size")}
          </span>
          <span role="columnheader" class="cell-time">
            {t("objects.changed")}
          </span>
        </div>
        <div class="grid-space" role="rowgroup" style={{ height: `${window.height}px` }}>
          {entries.slice(window.first, window.first + window.count).map((entry, i) => {
            const index = window.first + i;
            return (
              <Row
                key={index}
                index={index}
                entry={entry}
                top={window.offset + i * rowHeight}
                isActive={index === row}
                isSelected={selected.has(entry.key)}
                onClick={(event) => click(event, index)}
              />
            );
          })}
        </div>
      </div>
    </div>
  );
}

function Row({ index, entry, top, isActive, isSelected, onClick }) {
  const kind = kindOf(entry.key);
  return (
    <div
      id={`row-${index}`}
      role="row"
      aria-rowindex={index + 2}
      aria-selected={isSelected}
      class={`grid-row kind-${kind} ${isActive ? "active" : ""}`}
      style={{ transform: `translateY(${top}px)` }}
      onClick={onClick}
    >
      <span role="gridcell" class="pick">
        <span class="unseen">{t("objects.pick")}</span>
        <span class="box">
          <Icon name="check" size={14} />
        </span>
      </span>
      <span role="gridcell" class="cell-name">
        <Icon name={kind} />
        <span class="text">
          <Name>{lastPart(entry.key) || "/"}</Name>
        </span>
      </span>
      <span role="gridcell" class="cell-size">
        {entry.size === null ? t("objects.folder") : bytes(entry.size)}
      </span>
      <span role="gridcell" class="cell-time">
        {entry.time ? moment(entry.time, locale()) : ""}
      </span>
    </div>
  );
}
