// Maintenance: firmware upload with the flashing progress, restart and
// factory reset after confirmation, backup download and restore upload.
import { fct, say } from "./api.js";
import { cgiErrorText } from "./common.js";
import { upload } from "./upload.js";

const POLL_MS = 300;
const firmwareForm = document.getElementById("firmware-form");

// The flasher's progress: 0-100, negative when it failed (shown 130 lower).
async function flashProgress() {
  const response = await fetch("fwprogress.htm", { cache: "no-store" });
  const value = parseInt(JSON.parse((await response.text()).trim()).progress, 10);
  return Number.isNaN(value) ? null : value;
}

async function updateFirmware(event) {
  event.preventDefault();
  const bar = document.getElementById("firmware-progress");
  const message = document.getElementById("firmware-message");
  const file = firmwareForm.elements.sFirmwareFile.files[0];
  const button = firmwareForm.querySelector("button");
  button.disabled = true;
  bar.value = 0;
  say(message, `Sending ${file.name} to the flasher…`);
  // The flasher runs while the upload goes on; its progress comes from a
  // page served beside the upload.
  let polling = true;
  const poll = async () => {
    const value = await flashProgress().catch(() => null);
    if (value !== null && value >= 0 && polling) bar.value = value;
    if (polling) setTimeout(poll, POLL_MS);
  };
  poll();
  try {
    const answer = await upload("firmware.cgi", [["sFirmwareFile", file]], () => {});
    polling = false;
    const final = await flashProgress();
    if (answer.status !== 200) say(message, `The gateway refused the update (${answer.status}).`, "error");
    else if (final === 100) {
      bar.value = 100;
      say(message, "Firmware written. Restart the gateway to run it.", "ok");
    } else say(message, `The flasher stopped before the end (code ${final}); the current firmware stays.`, "error");
  } catch (error) {
    say(message, `The update failed: ${error.message}`, "error");
  } finally {
    polling = false;
    button.disabled = false;
  }
}

async function restart(option, question, done) {
  const message = document.getElementById("restart-message");
  if (!confirm(question)) return say(message, "Nothing was done.", "");
  const body = new URLSearchParams({ iRebootOption: String(option), sSuccessPage: "index.htm", iExpert: "-2" });
  const response = await fetch("reboot.cgi", { method: "POST", body, redirect: "manual" });
  if (response.status >= 400) return say(message, `Refused by the gateway (${response.status}).`, "error");
  say(message, done, "ok");
}

async function restore(event) {
  event.preventDefault();
  const form = event.target;
  const bar = document.getElementById("restore-progress");
  const message = document.getElementById("restore-message");
  const answer = await upload("import.cgi", [["sImportFile", form.elements.sImportFile.files[0]]], (p) => { bar.value = p; });
  if (/onReceiveSuccess/.test(answer.text)) {
    bar.value = 100;
    return say(message, "Backup restored. The gateway restarts with these settings.", "ok");
  }
  // The import stored its error for the next page (iCgiError): read it here.
  const { value } = await fct("iCgiError");
  const code = value && value !== "0" ? value : /onReceiveError\((-?\d+)\)/.exec(answer.text)?.[1];
  say(message, `Not restored: ${cgiErrorText(code) || `the gateway answered ${answer.status}`}`, "error");
}

if (firmwareForm) {
  firmwareForm.addEventListener("submit", updateFirmware);
  document.getElementById("reboot").addEventListener("click", () =>
    restart(0, "Restart the gateway now? The network is down for about a minute.", "The gateway is restarting; this page works again in about a minute."));
  document.getElementById("factory").addEventListener("click", () =>
    restart(2, "Put every setting back to the factory values and restart? This cannot be undone.",
      "Factory settings restored; the gateway is restarting. Sign in with the password on its label."));
  document.getElementById("restore-form").addEventListener("submit", restore);
}
