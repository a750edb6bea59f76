// 3. Wi-Fi: SSID, security and key (encrypted on the way), save and
// discard, WPS push and PIN, channel reselection, default keys.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { closeSync, constants, mkdirSync, openSync, readFileSync, readSync } from "node:fs";
import path from "node:path";
import { capture, qmcfg, rootPath, signedIn } from "../harness.js";

// Quotes and markup characters travel as text, both ways.
const NAME = `Flat "3" & <friend's>`;

async function settings(page) {
  const posted = [];
  page.on("request", (r) => { if (r.url().endsWith("/generic.cgi")) posted.push(r.postData() || ""); });
  await page.goto("/wifi.htm");
  const ssid = page.getByLabel("Network name (SSID)");
  await assertValue(ssid, qmcfg("get", "WLANInterface_1_Config_SSID"));
  await ssid.fill(NAME);
  await page.getByLabel("Security").selectOption("WPAand11i");
  await page.getByLabel("Wi-Fi key").fill("correct-horse-battery");
  await page.getByRole("button", { name: "Save" }).click();
  await page.getByText(/^Saved: .*Network name/).waitFor();
  assert.equal(qmcfg("get", "WLANInterface_1_Config_SSID"), NAME);
  assert.equal(qmcfg("get", "WLANInterface_1_Config_BeaconType"), "WPAand11i");
  assert.equal(qmcfg("get", "WLANInterface_1_Config_KeyPassphrase"), "correct-horse-battery");
  assert.ok(!posted.some((body) => /horse/.test(decodeURIComponent(body))), "the key went out in clear");

  // Values after reload; a discarded change is neither kept nor stored.
  await page.reload();
  await assertValue(ssid, NAME);
  assert.equal(await page.getByLabel("Wi-Fi key").inputValue(), "");
  await ssid.fill("nobody's");
  await page.getByRole("button", { name: "Discard changes" }).click();
  await page.getByText("Changes discarded").waitFor();
  assert.equal(await ssid.inputValue(), NAME);
  assert.equal(qmcfg("get", "WLANInterface_1_Config_SSID"), NAME);
}

async function assertValue(input, expected) {
  await input.page().waitForFunction(([el, v]) => el.value === v, [await input.elementHandle(), expected]);
}

async function wps(page) {
  const message = page.locator("#wps-message");
  await page.getByRole("button", { name: "Start push-button pairing" }).click();
  await message.getByText("Pairing could not be started").waitFor();
  // With the pairing daemon listening, the start command reaches it.
  const fifo = rootPath("var/quelm/wifi.d/pairingd_fifo");
  mkdirSync(path.dirname(fifo), { recursive: true });
  execFileSync("mkfifo", [fifo]);
  const reader = openSync(fifo, constants.O_RDONLY | constants.O_NONBLOCK);
  await page.getByRole("button", { name: "Start push-button pairing" }).click();
  await message.getByText("Pairing started").waitFor();
  const buffer = Buffer.alloc(64);
  const heard = buffer.subarray(0, readSync(reader, buffer)).toString();
  closeSync(reader);
  assert.equal(heard, "PAIRINGD_WIFI_WPS_START\n");
  await page.getByRole("button", { name: "Make a new PIN" }).click();
  await message.getByText("Enter this PIN on your device within two minutes: 12345670").waitFor();
}

async function radio(page) {
  const message = page.locator("#radio-message");
  await page.getByRole("button", { name: "Choose a new channel now" }).click();
  await message.getByText("the radio wlan0 was not found").waitFor();
  await page.getByLabel("Radio interface").fill("lo");
  await page.getByRole("button", { name: "Choose a new channel now" }).click();
  await message.getByText("The radio lo is choosing a new channel").waitFor();
  assert.match(readFileSync(rootPath("var/quelm/platform/events.log"), "utf8"), /iwconfig lo channel 0/);

  qmcfg("set", "WLANInterface_1_Config_WPADefaultKey", "changed-by-hand");
  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Restore the default WPA key" }).click();
  await message.getByText("The default WPA key is stored again.").waitFor();
  assert.equal(qmcfg("get", "WLANInterface_1_Config_WPADefaultKey"), "7kq4f2mxw9pb");
}

export async function wifi() {
  const { page, close } = await signedIn();
  await settings(page);
  await wps(page);
  await radio(page);
  await capture(page, "wifi");
  await close();
}
