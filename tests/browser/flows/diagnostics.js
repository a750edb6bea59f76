// 6. Diagnostics: ping, traceroute and nslookup started, polled (output as
// it arrives) and stopped; 7. Logs: refresh and clear.
import assert from "node:assert/strict";
import { readdirSync, readFileSync } from "node:fs";
import { capture, eventually, rootPath, signedIn } from "../harness.js";

async function run(page, tool, fields) {
  await page.getByLabel("Test", { exact: true }).selectOption({ label: tool });
  for (const [label, value] of Object.entries(fields)) await page.getByLabel(label).fill(value);
  await page.getByRole("button", { name: "Start" }).click();
  await page.locator("#diag-message").getByText(`Running ${tool} of `).waitFor();
}

export async function diagnostics() {
  const { page, close } = await signedIn();
  await page.goto("/diagnostics.htm");
  const output = page.locator("#output");
  const message = page.locator("#diag-message");

  // Twenty packets take four seconds: the first lines show while it runs.
  await run(page, "Ping", { "Host name or address": "localhost", "Packets": "20" });
  await output.getByText("seq=1 ").waitFor();
  assert.match(await message.textContent(), /^Running Ping of localhost/);
  await message.getByText("Finished.").waitFor();
  assert.match(await output.textContent(), /seq=19 [^]*20 packets transmitted/);

  // Stopped early: the test's output file is gone.
  await run(page, "Ping", { "Packets": "100" });
  await output.getByText("seq=0 ").waitFor();
  await page.getByRole("button", { name: "Stop" }).click();
  await message.getByText("Stopped.").waitFor();
  assert.deepEqual(readdirSync(rootPath("tmp")).filter((f) => f.startsWith("diag_ping_")), []);
  await capture(page, "diagnostics");

  await run(page, "Traceroute", { "Host name or address": "localhost", "Maximum hops": "5" });
  await message.getByText("Finished.").waitFor();
  assert.match(await output.textContent(), /^traceroute to localhost \(127.0.0.1\), 5 hops max/);
  await run(page, "Name lookup (nslookup)", { "Host name or address": "nosuch.example" });
  await message.getByText("Finished.").waitFor();
  assert.match(await output.textContent(), /can't resolve 'nosuch.example'/);
  await close();
}

export async function logs() {
  const { page, close } = await signedIn();
  await page.goto("/logs.htm");
  const log = page.locator("#log");
  await log.getByText("hostapd: wlan0: AP-ENABLED").waitFor();
  assert.doesNotMatch(await log.textContent(), /kernel/);
  await page.getByRole("button", { name: "Refresh" }).click();
  await page.locator("#logs-message").getByText(/^5 lines|^\d+ lines, read/).waitFor();
  await capture(page, "logs");
  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Clear the log" }).click();
  await page.getByText("The log was cleared").waitFor();
  assert.equal(await log.textContent(), "");
  // The logger restarts in the background, after the answer.
  await eventually(() => /syslog restart/.test(readFileSync(rootPath("var/quelm/platform/events.log"), "utf8")), "syslog restart");
  await close();
}
