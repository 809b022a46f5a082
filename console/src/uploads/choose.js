// The browser's own window to choose files.
export function chooseFiles({ folder = false } = {}) {
  return new Promise((resolve) => {
    const input = document.createElement("input");
    input.type = "file";
    input.multiple = true;
    input.webkitdirectory = folder;
    input.hidden = true;
    input.setAttribute("aria-hidden", "true");
    document.body.append(input);
    const done = () => {
      resolve(Array.from(input.files));
      input.remove();
    };
    input.addEventListener("change", done);
    input.addEventListener("cancel", done);
    input.click();
  });
}
