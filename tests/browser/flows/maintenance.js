// 8. Maintenance: firmware upload with the flashing progress, backup
// download and restore upload, restart and factory reset with confirmation.
import assert from "node:assert/strict";
import { createHash, randomBytes } from "node:crypto";
import { readFileSync } from "node:fs";
import { capture, eventually, qmcfg, rootPath, signedIn } from "../harness.js";

const events = () => readFileSync(rootPath("var/quelm/platform/events.log"), "utf8");

async function firmware(page) {
  const image = randomBytes(8 * 1024 * 1024);
  await page.getByLabel("Firmware file").setInputFiles({ name: "fw.bin", mimeType: "application/octet-stream", buffer: image });
  // Every value the bar shows, in order.
  await page.evaluate(() => {
    const bar = document.getElementById("firmware-progress");
    window.barValues = [];
    new MutationObserver(() => window.barValues.push(bar.value)).observe(bar, { attributes: true });
  });
  await page.getByRole("button", { name: "Update the firmware" }).click();
  await page.getByText("Firmware written. Restart the gateway to run it.").waitFor();
  const shown = await page.evaluate(() => window.barValues);
  assert.equal(shown.at(-1), 100);
  assert.ok(shown.some((v) => v > 0 && v < 100), `no progress between 0 and 100: ${shown}`);
  assert.equal(readFileSync(rootPath("var/quelm/platform/firmware.img.sha256"), "utf8").trim(),
    createHash("sha256").update(image).digest("hex"));
}

async function backupAndRestore(page) {
  const saved = qmcfg("get", "Device_Hostname");
  const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Download a backup" }).click()]);
  assert.equal(download.suggestedFilename(), "router.bin");
  const backup = readFileSync(await download.path());
  assert.deepEqual([...backup.subarray(0, 2)], [0xff, 0xff]);

  const message = page.locator("#restore-message");
  const file = page.getByLabel("Backup file");
  await file.setInputFiles({ name: "notes.txt", mimeType: "text/plain", buffer: Buffer.from("Device_Hostname=x\n") });
  await page.getByRole("button", { name: "Restore this backup" }).click();
  await message.getByText("Not restored: The gateway takes only its own binary backup files. (error 22)").waitFor();

  qmcfg("set", "Device_Hostname", "changed-after-backup");
  await file.setInputFiles({ name: "router.bin", mimeType: "application/octet-stream", buffer: backup });
  await page.getByRole("button", { name: "Restore this backup" }).click();
  await message.getByText("Backup restored.").waitFor();
  assert.equal(qmcfg("get", "Device_Hostname"), saved);
}

async function restarts(page) {
  const message = page.locator("#restart-message");
  const reboots = () => events().split("\n").filter((l) => / reboot /.test(l)).length;
  const before = reboots();
  page.once("dialog", (dialog) => dialog.dismiss());
  await page.getByRole("button", { name: "Restart the gateway" }).click();
  await message.getByText("Nothing was done.").waitFor();
  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Restart the gateway" }).click();
  await message.getByText("The gateway is restarting").waitFor();
  // The restart is asked for after the answer went out.
  await eventually(() => reboots() === before + 1, "one restart recorded");

  qmcfg("set", "Device_Hostname", "before-factory-reset");
  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Factory reset" }).click();
  await message.getByText("Factory settings restored").waitFor();
  assert.equal(qmcfg("get", "Device_Hostname"), "gateway");
  assert.match(events(), / factory 2/);
}

// A form post that fails sends the browser back to the page, which shows
// the stored error (iCgiError) once.
async function failedExport(page) {
  await page.locator('#backup-form input[name="sExportMode"]').evaluate((input) => { input.value = "text"; });
  await page.getByRole("button", { name: "Download a backup" }).click();
  await page.locator("#page-error").getByText("The gateway takes only its own binary backup files. (error 22)").waitFor();
  await page.reload();
  assert.ok(await page.locator("#page-error").isHidden());
}

export async function maintenance() {
  const { page, close } = await signedIn();
  await page.goto("/maintenance.htm");
  await firmware(page);
  await backupAndRestore(page);
  await capture(page, "maintenance");
  await failedExport(page);
  try {
    await restarts(page);
  } finally {
    // The platform lists the mounted disk again after the restart.
    qmcfg("load", "-", "Storage_Item_1_Name=usb1\nStorage_Item_1_Status_State=ConnectedMounted\n");
  }
  await close();
}
