// 5. Password change (current password required, sent encrypted) and the
// web accounts.
import assert from "node:assert/strict";
import { capture, qmcfg, signIn, signedIn } from "../harness.js";

async function changePassword(page, current, next) {
  await page.getByLabel("Current password").fill(current);
  await page.getByLabel("New password", { exact: true }).fill(next);
  await page.getByLabel("New password again").fill(next);
  await page.getByRole("button", { name: "Change password" }).click();
}

export async function users() {
  const { page, close } = await signedIn();
  const posted = [];
  page.on("request", (r) => { if (r.url().endsWith("/login.cgi")) posted.push(r.postData()); });
  await page.goto("/users.htm");
  const message = page.locator("#password-message");
  await changePassword(page, "wrong-one", "n3w-pass");
  await message.getByText("Password not changed: the current password is wrong.").waitFor();
  assert.equal(qmcfg("get", "User_1_Password"), "admin");

  await changePassword(page, "admin", "n3w-pass");
  await message.getByText("Password changed.").waitFor();
  assert.equal(qmcfg("get", "User_1_Password"), "n3w-pass");
  assert.ok(!posted.some((body) => /n3w-pass|admin&|=admin$/.test(decodeURIComponent(body).replace("login=admin", ""))),
    "a password went out in clear");
  await capture(page, "users");

  // The guest account switched on, then the change discarded.
  const guest = page.getByLabel("Account guest on");
  await guest.check();
  await page.locator("#accounts-form").getByRole("button", { name: "Save" }).click();
  await page.locator("#accounts-message").getByText("Saved: Account guest on.").waitFor();
  assert.equal(qmcfg("get", "User_2_Enable"), "1");
  await guest.uncheck();
  await page.locator("#accounts-form").getByRole("button", { name: "Discard changes" }).click();
  assert.ok(await guest.isChecked());
  qmcfg("set", "User_2_Enable", "0");

  // The new password signs in; the old one no longer does.
  await page.getByRole("button", { name: "Sign out" }).click();
  await page.waitForURL(/signedout=1/);
  await signIn(page, "admin", "admin");
  await page.waitForURL(/pwd=ko/);
  await signIn(page, "admin", "n3w-pass");
  await page.waitForURL(/status\.htm$/);
  qmcfg("set", "User_1_Password", "admin");
  await close();
}
