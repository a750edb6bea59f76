// Wi-Fi: the network's settings (the key goes out encrypted with the page's
// token), WPS pairing, channel reselection and the default keys.
import { fct, say, settingsForm } from "./api.js";
import { encryptValue } from "./cipher.js";

const form = document.getElementById("wifi-form");

async function run(messageId, name, argument, done) {
  const message = document.getElementById(messageId);
  say(message, "Working…");
  const { value, error } = await fct(name, argument);
  if (error) say(message, `${done.failed}: ${error}`, "error");
  else say(message, done.ok(value), "ok");
}

if (form) {
  const settings = settingsForm(form, { message: document.getElementById("wifi-message"), encrypt: encryptValue });
  settings.load(true);
  document.getElementById("wps-push").addEventListener("click", () => run("wps-message", "wifi_wps_push", undefined, {
    ok: () => "Pairing started: press the WPS button of your device within two minutes.",
    failed: "Pairing could not be started",
  }));
  document.getElementById("wps-pin").addEventListener("click", () => run("wps-message", "wifi_wps_pin_generate", undefined, {
    ok: (pin) => `Enter this PIN on your device within two minutes: ${pin}`,
    failed: "No PIN could be made",
  }));
  document.getElementById("channel-form").addEventListener("submit", (event) => {
    event.preventDefault();
    const name = event.target.elements["radio-if"].value;
    run("radio-message", "trigger_channel_selection", name, {
      ok: () => `The radio ${name} is choosing a new channel; devices reconnect in a few seconds.`,
      failed: `No new channel: the radio ${name} was not found`,
    });
  });
  for (const [id, fn, what] of [["default-wpa", "factory_reset_wpa_password", "WPA"], ["default-wep", "factory_reset_wep_password", "WEP"]]) {
    document.getElementById(id).addEventListener("click", () => {
      if (!confirm(`Put the factory ${what} key (printed on the gateway's label) back?`)) return;
      run("radio-message", fn, undefined, { ok: () => `The default ${what} key is stored again.`, failed: `The default ${what} key could not be restored` });
    });
  }
}
