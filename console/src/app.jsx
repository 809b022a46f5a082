import { useEffect, useState } from "preact/hooks";
import { findSession, isOperator, session, signOut } from "./net/api.js";
import { hashOf, operatorPages, pages, parseRoute } from "./pure/route.js";
import { makeStore, saved, useStore } from "./store.js";
import { language, languages, setLanguage, t } from "./text.js";
import { Buckets } from "./pages/Buckets.jsx";
import { Check } from "./pages/Check.jsx";
import { Log } from "./pages/Log.jsx";
import { Objects } from "./pages/Objects.jsx";
import { Overview } from "./pages/Overview.jsx";
import { Requests } from "./pages/Requests.jsx";
import { Settings } from "./pages/Settings.jsx";
import { SignIn } from "./pages/SignIn.jsx";
import { Unfinished } from "./pages/Unfinished.jsx";
import { FailureBox, Loading } from "./widgets/Common.jsx";
import { Dialog } from "./widgets/Dialog.jsx";
import { Flower, Icon, IconButton } from "./widgets/Icon.jsx";
import { Notices, tellFailure } from "./widgets/Notices.jsx";
import { UploadTray } from "./widgets/UploadTray.jsx";

const themes = ["auto", "light", "dark"];
const shownPages = {
  overview: Overview,
  objects: Objects,
  buckets: Buckets,
  unfinished: Unfinished,
  requests: Requests,
  check: Check,
  log: Log,
  settings: Settings,
};
const shortcuts = [
  ["/", "keys.search"],
  ["?", "keys.help"],
  ["1 … 8", "keys.pages"],
  ["u", "keys.upload"],
  ["↑ ↓ PgUp PgDn Home End", "keys.move"],
  ["Enter", "keys.open"],
  ["Backspace", "keys.up"],
  ["Space", "keys.select"],
  ["Ctrl+A", "keys.all"],
  ["F2", "keys.rename"],
  ["Delete", "keys.delete"],
];

function startLanguage() {
  const wish = saved.get("tansy-language") ?? navigator.language.split("-")[0];
  return wish in languages ? wish : "en";
}

const chosenLanguage = makeStore(startLanguage());
const chosenTheme = makeStore(themes.includes(saved.get("tansy-theme")) ? saved.get("tansy-theme") : "auto");

function applyLanguage(name) {
  setLanguage(name);
  document.documentElement.lang = name === "zh" ? "zh-CN" : "en";
}

function applyTheme(name) {
  document.documentElement.dataset.theme = name;
}

function useRoute() {
  const [route, setRoute] = useState(parseRoute(location.hash));
  useEffect(() => {
    const look = () => setRoute(parseRoute(location.hash));
    window.addEventListener("hashchange", look);
    return () => window.removeEventListener("hashchange", look);
  }, []);
  return route;
}

export function App() {
  const name = useStore(chosenLanguage);
  const theme = useStore(chosenTheme);
  applyLanguage(name);
  applyTheme(theme);
  return (
    <div key={name} class="whole">
      <Inside theme={theme} />
      <Notices />
    </div>
  );
}

function Inside({ theme }) {
  const signedIn = useStore(session);
  const [failure, setFailure] = useState(null);
  const find = () => findSession().then(() => setFailure(null), setFailure);
  useEffect(() => {
    session.get() === null && find();
  }, []);
  if (signedIn) {
    return <Layout theme={theme} />;
  }
  if (signedIn === null) {
    return <main class="sign-in">{failure ? <FailureBox failure={failure} onRetry={find} /> : <Loading />}</main>;
  }
  return <SignIn preferences={<Preferences theme={theme} />} />;
}

function Preferences({ theme }) {
  const names = Object.keys(languages);
  const other = names[(names.indexOf(language()) + 1) % names.length];
  const turnLanguage = () => {
    saved.set("tansy-language", other);
    chosenLanguage.set(other);
  };
  const turnTheme = () => {
    const next = themes[(themes.indexOf(theme) + 1) % themes.length];
    saved.set("tansy-theme", next);
    chosenTheme.set(next);
  };
  return (
    <div class="preferences">
      <button type="button" class="quiet" onClick={turnLanguage} title={t("app.language", { name: languages[language()] })}>
        <Icon name="language" size={18} /> <span lang={other}>{languages[other]}</span>
      </button>
      <button type="button" class="quiet" onClick={turnTheme} aria-label={t("app.theme", { name: t(`app.theme.${theme}`) })}>
        <Icon name={theme} size={18} /> <span>{t(`app.theme.${theme}`)}</span>
      </button>
    </div>
  );
}

function pagesToShow() {
  return pages.filter((page) => isOperator() || !operatorPages.includes(page));
}

function isTyping(event) {
  return event.target.closest("input, textarea, select, dialog") !== null;
}

function useShortcuts(onHelp) {
  useEffect(() => {
    const press = (event) => {
      if (isTyping(event) || event.ctrlKey || event.metaKey || event.altKey) {
        return;
      }
      const page = pagesToShow()[Number(event.key) - 1];
      if (event.key === "/") {
        document.getElementById("search")?.focus();
      } else if (event.key === "?") {
        onHelp();
      } else if (event.key === "u") {
        document.getElementById("upload-files")?.click();
      } else if (page) {
        location.hash = hashOf(page);
      } else {
        return;
      }
      event.preventDefault();
    };
    document.addEventListener("keydown", press);
    return () => document.removeEventListener("keydown", press);
  }, []);
}

function Layout({ theme }) {
  const route = useRoute();
  const [isMenuOpen, setMenuOpen] = useState(false);
  const [isHelpOpen, setHelpOpen] = useState(false);
  useShortcuts(() => setHelpOpen(true));
  useEffect(() => {
    document.title = `${t(`page.${route.page}`)} · ${t("app.title")}`;
    setMenuOpen(false);
  }, [route]);
  const Page = shownPages[route.page];
  return (
    <div class="layout">
      <a
        class="skip"
        href="#content"
        onClick={(event) => {
          event.preventDefault();
          document.getElementById("content").focus();
        }}
      >
        {t("app.skip")}
      </a>
      <header class="bar">
        <IconButton
          name={isMenuOpen ? "close" : "menu"}
          label={t("app.menu")}
          aria-expanded={isMenuOpen}
          aria-controls="menu"
          onClick={() => setMenuOpen(!isMenuOpen)}
        />
        <Flower size={26} /> <span class="strong">{t("app.title")}</span>
      </header>
      <aside id="menu" class={isMenuOpen ? "open" : ""}>
        <div class="brand">
          <Flower />
          <span>{t("app.title")}</span>
        </div>
        <nav aria-label={t("app.navigation")}>
          <ul>
            {pagesToShow().map((page) => (
              <li key={page}>
                <a href={hashOf(page)} aria-current={route.page === page ? "page" : undefined}>
                  <Icon name={page} /> {t(`page.${page}`)}
                </a>
              </li>
            ))}
          </ul>
        </nav>
        <div class="aside-foot">
          <Preferences theme={theme} />
          <button type="button" class="quiet" onClick={() => setHelpOpen(true)}>
            <Icon name="keyboard" size={18} /> {t("app.shortcuts")}
          </button>
          <button type="button" class="quiet" onClick={() => signOut().catch(tellFailure)}>
            <Icon name="signOut" size={18} /> {t("app.signOut")}
          </button>
        </div>
      </aside>
      <main id="content" tabIndex={-1} class={`page page-${route.page}`}>
        <Page route={route} theme={theme} />
      </main>
      <UploadTray />
      {isHelpOpen && <Help onClose={() => setHelpOpen(false)} />}
    </div>
  );
}

function Help({ onClose }) {
  return (
    <Dialog title={t("keys.title")} onClose={onClose}>
      <dl class="shortcuts">
        {shortcuts.map(([keys, text]) => (
          <div key={text}>
            <dt>
              {keys.split(" ").map((key) => (
                <kbd key={key}>{key}</kbd>
              ))}
            </dt>
            <dd>{t(text)}</dd>
          </div>
        ))}
      </dl>
    </Dialog>
  );
}
