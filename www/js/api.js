// The pages' side of generic.cgi and the bits every page shares: the page's
// access token (rendered into #page-data by the page's token= directive),
// one request with its fields in order, error and status messages, and the
// save / discard bar of a settings form.

export function pageData() {
  const el = document.getElementById("page-data");
  return el ? JSON.parse(el.textContent) : {};
}

// The answer is one JSON object; the gateway writes a single quote as \'
// inside its error text, which JSON does not know.
export function parseAnswer(text) {
  try {
    return JSON.parse(text.replace(/\\'/g, "'"));
  } catch {
    const error = /"error" : "((?:[^"\\]|\\.)*)"/.exec(text);
    return { error: error ? error[1].replace(/\\(.)/g, "$1") : `Unreadable answer: ${text.slice(0, 200)}` };
  }
}

// fields: [name, value] pairs, sent in this order after the page's token.
export async function call(fields) {
  const body = new URLSearchParams([["token", pageData().token || ""], ...fields]);
  const response = await fetch("generic.cgi", { method: "POST", body });
  if (!response.ok) return { error: `The gateway answered ${response.status} ${response.statusText}.` };
  return parseAnswer(await response.text());
}

export async function read(...paths) {
  return call(paths.map((p) => ["read", p]));
}

// Calls a device function; its answer is the function's value.
export async function fct(name, argument) {
  const answer = await call([["fct", argument === undefined ? name : `${name}:${argument}`]]);
  return { value: answer[name], error: answer.error };
}

// A message line (role=status or role=alert in the page): kind is "ok",
// "error" or "" for progress.
export function say(el, text, kind = "") {
  el.textContent = text;
  el.className = `message ${kind}`.trim();
  el.hidden = !text;
}

// The values of a read answer by property name: {"Obj_Prop": v} and the
// nested trees of Obj reads both give plain names.
export function flatten(answer, into = {}) {
  for (const [key, value] of Object.entries(answer || {})) {
    if (key === "error") continue;
    if (value && typeof value === "object") flatten(value, into);
    else into[key] = value;
    const short = key.split("_").pop();
    if (!(short in into) && (value === null || typeof value !== "object")) into[short] = value;
  }
  return into;
}

// A settings form whose inputs carry data-path="Object_Property". load()
// fills them from the data model, save() writes the changed ones in one
// request (committed together, or reverted together on any error), and
// discard puts the stored values back. encrypt(path) marks secrets.
export function settingsForm(form, { message, encrypt = () => null, afterSave } = {}) {
  const inputs = [...form.querySelectorAll("[data-path]")];
  let stored = {};
  const valueOf = (input) => (input.type === "checkbox" ? (input.checked ? "1" : "0") : input.value);
  const setValue = (input, v) => {
    if (input.type === "checkbox") input.checked = v === "1";
    else input.value = v ?? "";
  };
  const changed = () => inputs.filter((i) => valueOf(i) !== stored[i.dataset.path]);
  const markDirty = () => form.classList.toggle("dirty", changed().length > 0);

  async function load() {
    const answer = await read(...new Set(inputs.map((i) => i.dataset.path)));
    if (answer.error) say(message, answer.error, "error");
    stored = {};
    for (const input of inputs) {
      stored[input.dataset.path] = input.dataset.secret ? "" : String(answer[input.dataset.path] ?? "");
      setValue(input, stored[input.dataset.path]);
    }
    markDirty();
  }

  form.addEventListener("input", markDirty);
  form.addEventListener("reset", (event) => {
    event.preventDefault();
    inputs.forEach((i) => setValue(i, stored[i.dataset.path]));
    markDirty();
    say(message, "Changes discarded: the stored values are shown again.", "ok");
  });
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    const todo = changed().filter((i) => !(i.dataset.secret && i.value === ""));
    if (!todo.length) return say(message, "Nothing to save: no value was changed.", "ok");
    if (!form.reportValidity()) return;
    const token = pageData().token;
    const fields = todo.map((i) => ["write", `${i.dataset.path}:${i.dataset.secret ? encrypt(token, i.value) : valueOf(i)}`]);
    const answer = await call(fields);
    if (answer.error) return say(message, `Not saved: ${answer.error}`, "error");
    say(message, `Saved: ${todo.map((i) => i.labels[0]?.textContent.trim() || i.getAttribute("aria-label") || i.name).join(", ")}.`, "ok");
    await load();
    if (afterSave) afterSave();
  });
  return { load };
}
