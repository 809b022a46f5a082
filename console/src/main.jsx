import { render } from "preact";
import { App } from "./app.jsx";
import "./style.css";

render(<App />, document.getElementById("app"));
