// 2. Status: device, line rates, LAN addresses, disk, uptime.
import assert from "node:assert/strict";
import { capture, qmcfg, signedIn } from "../harness.js";

export async function status() {
  const { page, close } = await signedIn();
  const row = (name) => page.getByRole("row", { name: new RegExp(`^${name}`) });
  await row("Model").getByText(qmcfg("get", "Device_Model")).waitFor();
  await row("Download").getByText("20.5 Mbit/s").waitFor();
  await row("Upload").getByText("1.0 Mbit/s").waitFor();
  await row("IPv4 address").getByText("192.168.1.1 / 255.255.255.0").waitFor();
  await row("State").getByText("Connected and ready").waitFor();
  assert.match(await row("Up for").textContent(), /\d+ h \d+ min/);

  // A cable gateway shows its DOCSIS speeds instead.
  qmcfg("set", "DOCSIS_Status_Enable", "1");
  qmcfg("set", "DOCSIS_Management_Interfaces_3_Speed", "500000");
  try {
    await page.getByRole("button", { name: "Refresh" }).click();
    await row("Line").getByText("Cable (DOCSIS)").waitFor();
    await row("Download").getByText("500.0 Mbit/s").waitFor();
  } finally {
    qmcfg("set", "DOCSIS_Status_Enable", "0");
  }
  await page.getByRole("button", { name: "Refresh" }).click();
  await row("Line").getByText("DSL").waitFor();
  await capture(page, "status");
  await close();
}
