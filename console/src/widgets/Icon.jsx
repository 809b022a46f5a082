// Drawings of 24 by 24, in the colour of the text around them. They are never the only name of anything.
const shapes = {
  overview: "M4 13h4l2-7 4 13 2-6h4",
  objects: "M4 6a1 1 0 0 1 1-1h5l2 2.500h7a1 1 0 0 1 1 1V18a1 1 0 0 1-1 1H5a1 1 0 0 1-1-1z",
  buckets: "M5 7h14l-1.600 12.200a1 1 0 0 1-1 .8H7.600a1 1 0 0 1-1-.8zM4 7a8 2.500 0 0 1 16 0",
  unfinished: "M12 20a8 8 0 1 1 8-8M12 7v5l3 2M17 17l4 4M21 17l-4 4",
  requests: "M5 8h14M15 4l4 4-4 4M19 16H5M9 12l-4 4 4 4",
  log: "M6 4h9l4 4v12H6zM9 11h7M9 14h7M9 17h4",
  settings: "M4 7h10M18 7h2M4 17h2M10 17h10M16 5v4M8 15v4",
  upload: "M12 16V5M7.500 9 12 4.500 16.500 9M5 19h14",
  download: "M12 4v11M7.500 11l4.500 4.500L16.500 11M5 19h14",
  share: "M10 14a4 4 0 0 0 6 .4l3-3a4 4 0 0 0-5.700-5.700L12 7M14 10a4 4 0 0 0-6-.4l-3 3a4 4 0 0 0 5.700 5.700L12 17",
  delete: "M5 7h14M10 7V4.500h4V7M7 7l1 12.500h8L17 7M10.500 11v5M13.500 11v5",
  rename: "M5 19l1-4L16 5l3 3L9 18zM14 7l3 3",
  newFolder: "M4 6a1 1 0 0 1 1-1h5l2 2.500h7a1 1 0 0 1 1 1V18a1 1 0 0 1-1 1H5a1 1 0 0 1-1-1zM12 10.500v5M9.500 13h5",
  search: "M10.500 17a6.500 6.500 0 1 1 0-13 6.500 6.500 0 0 1 0 13zM15.500 15.500 20 20",
  reload: "M19 12a7 7 0 1 1-2.200-5.100M19 4v4h-4",
  close: "M6 6l12 12M18 6 6 18",
  next: "M9 5l7 7-7 7",
  previous: "M15 5l-7 7 7 7",
  down: "M6 9.500l6 6 6-6",
  plus: "M12 5v14M5 12h14",
  pause: "M9 5v14M15 5v14",
  play: "M8 5l11 7-11 7z",
  check: "M5 12.500l4.500 4.500L19 7.500",
  warning: "M12 4 3 19.500h18zM12 10v4.500M12 17v.300",
  bad: "M12 3.500a8.500 8.500 0 1 1 0 17 8.500 8.500 0 0 1 0-17zM12 8v5M12 16v.300",
  language: "M4 6h9M8.500 4v2M11 6c-1 4-3.500 6.500-7 8M6 9c1 2.500 3.500 4.500 6 5M12 20l4-10 4 10M13.500 17h5",
  auto: "M12 3.500a8.500 8.500 0 1 1 0 17zM12 3.500a8.500 8.500 0 0 0 0 17",
  light:
    "M12 8a4 4 0 1 1 0 8 4 4 0 0 1 0-8zM12 3v2M12 19v2M3 12h2M19 12h2M5.600 5.600 7 7M17 17l1.400 1.400M5.600 18.400 7 17M17 7l1.400-1.400",
  dark: "M19.500 14A8 8 0 1 1 10 4.500 6.500 6.500 0 0 0 19.500 14z",
  signOut: "M10 5H5v14h5M14 8l4 4-4 4M18 12H9",
  menu: "M4 7h16M4 12h16M4 17h16",
  keyboard: "M3 7h18v10H3zM6.500 10h.300M10 10h.300M13.500 10h.300M17 10h.300M8 14h8",
  eye: "M3 12s3.500-6 9-6 9 6 9 6-3.500 6-9 6-9-6-9-6zM12 9.500a2.500 2.500 0 1 1 0 5 2.500 2.500 0 0 1 0-5z",
  folder: "M4 6a1 1 0 0 1 1-1h5l2 2.500h7a1 1 0 0 1 1 1V18a1 1 0 0 1-1 1H5a1 1 0 0 1-1-1z",
  file: "M7 3.500h7l4 4v13H7zM14 3.500V8h4",
  picture: "M4 5h16v14H4zM4 16l4.500-4.500 4 4 2.500-2.500 5 4.500M15 9.500h.300",
  video: "M4 6h16v12H4zM10 9.500v5l4-2.500z",
  audio:
    "M9 18V6l10-2v12M9 18a2.500 2.500 0 1 1-2.500-2.500A2.500 2.500 0 0 1 9 18zM19 16a2.500 2.500 0 1 1-2.500-2.500A2.500 2.500 0 0 1 19 16z",
  pdf: "M7 3.500h7l4 4v13H7zM14 3.500V8h4M10 17v-5h1.500a1.500 1.500 0 0 1 0 3H10",
  text: "M7 3.500h7l4 4v13H7zM14 3.500V8h4M10 12h5M10 15h5",
  archive: "M5 4h14v16H5zM12 4v2M12 8v2M12 12v2M10.500 16h3",
};

export function Icon({ name, size = 20 }) {
  const isFilled = name === "folder";
  return (
    <svg
      class={`icon icon-${name}`}
      width={size}
      height={size}
      viewBox="0 0 24 24"
      aria-hidden="true"
      focusable="false"
      fill={isFilled ? "currentColor" : "none"}
      stroke="currentColor"
      stroke-width="1.700"
      stroke-linecap="round"
      stroke-linejoin="round"
    >
      <path d={shapes[name] ?? shapes.file} />
    </svg>
  );
}

export function IconButton({ name, label, onClick, class: extra = "", ...others }) {
  return (
    <button type="button" class={`icon-button ${extra}`} title={label} aria-label={label} onClick={onClick} {...others}>
      <Icon name={name} />
    </button>
  );
}

// The flower on every page.
export function Flower({ size = 32 }) {
  return (
    <svg width={size} height={size} viewBox="0 0 32 32" aria-hidden="true" focusable="false">
      <rect width="32" height="32" rx="9" fill="#1d5c49" />
      <path
        d="M16 30V17M16 25c-4 0-6-3-6.500-7M16 22c4 0 6-3 6.500-6"
        fill="none"
        stroke="#8fd3b6"
        stroke-width="2"
        stroke-linecap="round"
      />
      <circle cx="16" cy="10" r="5" fill="#f6c31c" />
      <circle cx="8.500" cy="14.500" r="3.700" fill="#f2b705" />
      <circle cx="23.500" cy="13" r="3.700" fill="#f2b705" />
    </svg>
  );
}
