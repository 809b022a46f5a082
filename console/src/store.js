// A value that parts of the page show, and that changes.
import { useEffect, useState } from "preact/hooks";

export function makeStore(value) {
  const listeners = new Set();
  return {
    get: () => value,
    set(next) {
      value = typeof next === "function" ? next(value) : next;
      listeners.forEach((listener) => listener(value));
    },
    subscribe(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
  };
}

export function useStore(store) {
  const [value, setValue] = useState(store.get());
  useEffect(() => {
    setValue(store.get());
    return store.subscribe(setValue);
  }, [store]);
  return value;
}

// What survives a reload on this machine; a browser may forbid it.
export const saved = {
  get(name) {
    try {
      return localStorage.getItem(name);
    } catch {
      return null;
    }
  },
  set(name, value) {
    try {
      localStorage.setItem(name, value);
    } catch {
      // The page works without it.
    }
  },
};
