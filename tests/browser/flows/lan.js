// 4. LAN/DHCP settings and the port forwarding rules (add, edit, delete).
import assert from "node:assert/strict";
import { capture, qmcfg, signedIn } from "../harness.js";

async function settings(page) {
  const message = page.locator("#lan-message");
  const last = page.getByLabel("Last address handed out");
  await page.waitForFunction(() => document.getElementById("dhcp-max").value !== "");
  await last.fill("192.168.1.200");
  await page.locator("#lan-form").getByRole("button", { name: "Save" }).click();
  await message.getByText("Saved: Last address handed out.").waitFor();
  assert.equal(qmcfg("get", "LANDevice_1_DHCPServer_MaxAddress"), "192.168.1.200");

  // A value the data model refuses: the gateway's own error text, nothing stored.
  await page.getByLabel("First address handed out").fill("192.168.1.300");
  await last.fill("192.168.1.220");
  await page.locator("#lan-form").getByRole("button", { name: "Save" }).click();
  await message.getByText("Not saved: Unable to write the value 192.168.1.300 for LANDevice_1_DHCPServer_MinAddress").waitFor();
  assert.equal(qmcfg("get", "LANDevice_1_DHCPServer_MaxAddress"), "192.168.1.200");
  assert.equal(qmcfg("get", "LANDevice_1_DHCPServer_MinAddress"), "192.168.1.10");
  await page.locator("#lan-form").getByRole("button", { name: "Discard changes" }).click();
  assert.equal(await last.inputValue(), "192.168.1.200");
}

async function fillRule(page, rule) {
  const form = page.locator("#rule-form");
  for (const [label, value] of Object.entries(rule)) await form.getByLabel(label, { exact: true }).fill(value);
  await form.getByRole("button", { name: "Save rule" }).click();
}

async function rules(page) {
  const message = page.locator("#rules-message");
  const rows = page.locator("#rules tr");
  await rows.filter({ hasText: "operator-voip" }).getByText("Set by your provider").waitFor();
  const before = qmcfg("count", "PortMapping");

  await page.getByRole("button", { name: "Add a rule" }).click();
  await fillRule(page, { "Name": "game", "External port": "3074", "Device address": "192.168.1.30", "Device port": "3074" });
  await message.getByText("Rule game saved.").waitFor();
  await rows.filter({ hasText: "game" }).waitFor();
  const added = qmcfg("count", "PortMapping").split(",").find((n) => !before.split(",").includes(n));
  assert.equal(qmcfg("get", `PortMapping_${added}_InternalClient`), "192.168.1.30");
  assert.equal(qmcfg("get", `PortMapping_${added}_User`), "1");

  // A refused value leaves no half-made rule.
  await page.getByRole("button", { name: "Add a rule" }).click();
  await fillRule(page, { "Name": "broken", "External port": "80", "Device address": "192.168.1.300", "Device port": "80" });
  await message.getByText(/^Rule not saved: Unable to write the value 192.168.1.300/).waitFor();
  assert.equal(qmcfg("count", "PortMapping"), `${before},${added}`);
  await page.getByRole("button", { name: "Discard" , exact: true }).click();

  await page.getByRole("button", { name: "Edit game" }).click();
  await fillRule(page, { "External port": "3075" });
  await message.getByText("Rule game saved.").waitFor();
  await rows.filter({ hasText: "3075" }).waitFor();
  assert.equal(qmcfg("get", `PortMapping_${added}_ExternalPort`), "3075");
  await capture(page, "lan");

  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Delete game" }).click();
  await message.getByText("Rule game deleted.").waitFor();
  assert.equal(await rows.filter({ hasText: "game" }).count(), 0);
  assert.equal(qmcfg("count", "PortMapping"), before);
}

export async function lan() {
  const { page, close } = await signedIn();
  await page.goto("/lan.htm");
  await settings(page);
  await rules(page);
  await close();
}
