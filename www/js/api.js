// The pages' side of generic.cgi and the bits every page shares: the page's
// access token (rendered into #page-data by the page's token= directive),
// one request with its fields in order, error and status messages, and the
// save / discard bar of a settings form.

export function pageData() {
  const el = document.getElementById("page-data");
  return el ? JSON.parse(el.textContent) : {};
}

// The gateway's JSON with its string escapes made standard: it writes
// control bytes in octal (\011), a single quote as \', and in generic.cgi
// answers a double quote inside a value as \\" (kept so by the gateway for
// its older pages); a \\" before a comma, a closing brace or the end is a
// value ending in a backslash (a value's closing quote is followed by one).
export function parseGatewayJson(text) {
  let out = "";
  let inString = false;
  for (let i = 0; i < text.length; i++) {
    const c = text[i];
    if (!inString || c !== "\\") {
      if (c === '"') inString = !inString;
      out += c;
      continue;
    }
    const rest = text.slice(i + 1, i + 4);
    if (/^[0-7]{3}$/.test(rest)) {
      out += `\\u${parseInt(rest, 8).toString(16).padStart(4, "0")}`;
      i += 3;
    } else if (rest[0] === "'") {
      out += "'";
      i += 1;
    } else if (rest.startsWith('\\"') && !/^[,}]?$/.test(text[i + 3] ?? "")) {
      out += '\\"';
      i += 2;
    } else {
      out += c + (rest[0] ?? "");
      i += 1;
    }
  }
  return JSON.parse(out);
}

export function parseAnswer(text) {
  try {
    return parseGatewayJson(text);
  } catch {
    // An answer broken elsewhere (a function that printed no value) still
    // carries its error text.
    const error = /"error" : ("(?:[^"\\]|\\.)*")/.exec(text);
    try {
      return { error: parseGatewayJson(`[${error[1]}]`)[0] };
    } catch {
      return { error: `Unreadable answer: ${text.slice(0, 200)}` };
    }
  }
}

// The page symbols' string escapes: octal for control bytes (a tab is
// \011; kept so by the gateway for its older pages), \uXXXX, and a
// backslash before quotes and backslashes. JSON.parse knows no octal.
export function unescapeSsi(text) {
  return text.replace(/\\(?:([0-7]{3})|u([0-9a-fA-F]{4})|(.))/g, (_, oct, hex, other) =>
    oct ? String.fromCharCode(parseInt(oct, 8)) : hex ? String.fromCharCode(parseInt(hex, 16)) : other === "f" ? "\f" : other);
}

// Values the page was rendered with by its cli= directives, as
// {"Object_Property": value}: <script type="text/plain" data-first="Object">
// holding the object's tree in the script-string mode (jsvar).
export function firstValues() {
  const values = {};
  for (const node of document.querySelectorAll("script[data-first]")) {
    try {
      const tree = parseGatewayJson(node.textContent.trim());
      for (const [key, value] of Object.entries(tree)) {
        if (typeof value !== "object") values[`${node.dataset.first}_${key}`] = value;
      }
    } catch {
      // An object the page could not render is read through generic.cgi.
    }
  }
  return values;
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

  // The first values come with the page; later ones from generic.cgi.
  async function load(first = false) {
    const known = first ? firstValues() : {};
    const paths = [...new Set(inputs.map((i) => i.dataset.path))];
    const answer = paths.every((p) => p in known) ? known : await read(...paths);
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
