import { render } from "preact";
import "./style.css";

render(<h1>Tansy</h1>, document.getElementById("app"));
