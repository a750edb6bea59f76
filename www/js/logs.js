// Logs: the system log (without kernel lines) with refresh and clear.
import { fct, say } from "./api.js";

const log = document.getElementById("log");
const message = document.getElementById("logs-message");

async function refresh() {
  const { value, error } = await fct("logread");
  if (error) return say(message, `The log could not be read: ${error}`, "error");
  const lines = (value || "").split("|").filter(Boolean);
  log.textContent = lines.join("\n");
  say(message, `${lines.length} line${lines.length === 1 ? "" : "s"}, read ${new Date().toLocaleTimeString()}.`, "ok");
}

async function clear() {
  if (!confirm("Clear the system log?")) return;
  const { value, error } = await fct("clear_logs");
  if (error || value !== "SUCCESS") return say(message, `The log was not cleared: ${error || value}`, "error");
  log.textContent = "";
  say(message, "The log was cleared; new messages appear after a refresh.", "ok");
}

if (log) {
  document.getElementById("refresh").addEventListener("click", refresh);
  document.getElementById("clear").addEventListener("click", clear);
  refresh();
}
