// Diagnostics: a test runs on the gateway in the background; the page starts
// it, asks for its output until the gateway answers FINISHED (showing the
// output as it grows) and may stop it.
import { fct, say } from "./api.js";

const POLL_MS = 400;
const form = document.getElementById("diag-form");
const output = document.getElementById("output");
const message = document.getElementById("diag-message");
const stopButton = document.getElementById("stop");
let running = null; // { tool, id, timer }

function showFieldsFor(tool) {
  for (const field of form.querySelectorAll("[data-for]")) {
    const on = field.dataset.for === tool;
    field.hidden = !on;
    field.querySelector("input").disabled = !on;
  }
}

function finish(text, kind) {
  clearTimeout(running?.timer);
  running = null;
  stopButton.disabled = true;
  form.elements.start.disabled = false;
  say(message, text, kind);
}

async function poll() {
  if (!running) return;
  const { tool, id } = running;
  const { value, error } = await fct(tool, `SHOW|${id}`);
  if (running?.id !== id) return;
  if (error) return finish(`The test failed: ${error}`, "error");
  if (value === "FINISHED") return finish("Finished.", "ok");
  // Lines of the output arrive joined by "|".
  if (value) output.textContent = value.replace(/\|/g, "\n");
  running.timer = setTimeout(poll, POLL_MS);
}

async function start(event) {
  event.preventDefault();
  const f = form.elements;
  const tool = f.tool.value;
  const pieces = { diag_ping: [f.host.value, f.size.value, f.count.value], diag_traceroute: [f.host.value, f.hops.value],
    diag_nslookup: [f.host.value] }[tool];
  output.textContent = "";
  say(message, "Starting…");
  const { value, error } = await fct(tool, ["START", ...pieces].join("|"));
  if (error || !/^\d+$/.test(value || "")) return say(message, `The test could not be started: ${error || value}`, "error");
  running = { tool, id: value };
  f.start.disabled = true;
  stopButton.disabled = false;
  say(message, `Running ${f.tool.selectedOptions[0].textContent} of ${f.host.value}…`);
  running.timer = setTimeout(poll, POLL_MS);
}

async function stop() {
  if (!running) return;
  const { tool, id } = running;
  clearTimeout(running.timer);
  const { error } = await fct(tool, `STOP|${id}`);
  finish(error ? `Could not stop the test: ${error}` : "Stopped.", error ? "error" : "ok");
}

if (form) {
  showFieldsFor(form.elements.tool.value);
  form.elements.tool.addEventListener("change", () => showFieldsFor(form.elements.tool.value));
  form.addEventListener("submit", start);
  stopButton.addEventListener("click", stop);
}
