// 1. Sign in (signed), wrong password and lockout messages, sign out.
import assert from "node:assert/strict";
import { capture, qmcfg, signIn, visitor } from "../harness.js";

export async function signInAndOut() {
  const { page, close } = await visitor();
  await signIn(page, "admin", "not-the-password");
  await page.waitForURL(/pwd=ko/);
  await page.getByRole("alert").filter({ hasText: "Wrong user name or password" }).waitFor();
  assert.equal(qmcfg("get", "Services_IADConfigurator_NumberTry"), "1");
  await capture(page, "signin-wrong-password");

  // The password never travels: only the seed reaches the gateway.
  const posted = [];
  page.on("request", (r) => { if (r.url().endsWith("/login.cgi")) posted.push(r.postData()); });
  await signIn(page);
  await page.waitForURL(/status\.htm$/);
  assert.match(posted[0], /^seed=[0-9a-f]{64}&level=admin&redirect=no$/);
  // Where the browser has no Web Crypto (a gateway reached over plain http
  // by its address), the page's own SHA-256 gives the same digests.
  const digests = await page.evaluate(async () => {
    const { sha256Hex } = await import("/js/sha256.js");
    return Promise.all(["", "abc", "admin:é漢".repeat(20)].map(async (t) => [await sha256Hex(t), await sha256Hex(t, false)]));
  });
  for (const [webCrypto, own] of digests) assert.equal(own, webCrypto);
  assert.equal(qmcfg("get", "Services_IADConfigurator_NumberTry"), "0");
  await page.goto("/index.htm");
  await page.getByRole("heading", { name: "Welcome" }).waitFor();
  await capture(page, "home");
  await page.getByRole("button", { name: "Sign out" }).click();
  await page.waitForURL(/signedout=1/);
  await page.getByText("You are signed out.").waitFor();
  await capture(page, "signin");
  await page.goto("/status.htm");
  await page.getByText("sign in").first().waitFor();
  await close();
}

export async function lockout() {
  const { page, close } = await visitor();
  try {
    for (let i = 0; i < 3; i++) {
      await signIn(page, "admin", `wrong-${i}`);
      await page.waitForURL(/pwd=ko/);
    }
    const alert = page.getByRole("alert").filter({ hasText: "signing in is blocked for" });
    await alert.waitFor();
    assert.ok(Number(qmcfg("get", "Services_IADConfigurator_TimeBlock")) > Date.now() / 1000);
    // Even the right password is refused while the block lasts.
    await signIn(page);
    await page.waitForURL(/pwd=ko/);
    await alert.waitFor();
    await capture(page, "signin-locked");
  } finally {
    qmcfg("set", "Services_IADConfigurator_TimeBlock", "0");
    await close();
  }
}
