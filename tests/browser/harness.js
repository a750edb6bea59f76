// Shared by the flows: one chromium for the whole suite, a fresh browser
// context (own cookies, so own gateway session) per flow, the gateway's
// data model through qmcfg, and screenshots at desktop and phone width.
import { execFileSync } from "node:child_process";
import path from "node:path";
import { chromium } from "playwright-core";

export const gateway = process.env.GATEWAY_URL;
const root = process.env.QUELM_ROOT;
const screenshots = process.env.SCREENSHOTS;
export const DESKTOP = { width: 1280, height: 860 };
export const PHONE = { width: 390, height: 844 };
export const WAIT_MS = 15000;

let browser;

export async function startBrowser() {
  if (!gateway || !root) throw new Error("run through scripts/browser-test.sh (GATEWAY_URL and QUELM_ROOT)");
  browser = await chromium.launch({ executablePath: process.env.CHROMIUM || "/usr/bin/chromium", headless: true });
}

export async function stopBrowser() {
  await browser?.close();
}

// A new visitor: its own cookies, downloads accepted.
export async function visitor() {
  const context = await browser.newContext({ baseURL: gateway, viewport: DESKTOP, acceptDownloads: true });
  context.setDefaultTimeout(WAIT_MS);
  const page = await context.newPage();
  const errors = [];
  page.on("pageerror", (error) => errors.push(`${page.url()}: ${error.message}`));
  // Closes the visitor; a script error on any page it saw fails the flow.
  const close = async () => {
    await context.close();
    if (errors.length) throw new Error(`script errors:\n${errors.join("\n")}`);
  };
  return { context, page, close };
}

// qmcfg with its arguments; "load", "-" takes a third argument as its input.
export function qmcfg(...args) {
  const input = args[0] === "load" ? args.pop() : undefined;
  return execFileSync(process.env.QMCFG, args, { env: { ...process.env, QUELM_ROOT: root }, encoding: "utf8", input }).trimEnd();
}

export function rootPath(...parts) {
  return path.join(root, ...parts);
}

// Waits until check() holds, for what the gateway does after its answer
// (a background restart of the logger); fails after WAIT_MS.
export async function eventually(check, what) {
  const end = Date.now() + WAIT_MS;
  while (!check()) {
    if (Date.now() > end) throw new Error(`still not true after ${WAIT_MS} ms: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

export async function signIn(page, user = "admin", password = qmcfg("get", "User_1", "Password")) {
  await page.goto("/index.htm");
  await page.getByLabel("User name").fill(user);
  await page.getByLabel("Password").fill(password);
  await page.getByRole("button", { name: "Sign in" }).click();
}

export async function signedIn() {
  const v = await visitor();
  await signIn(v.page);
  await v.page.waitForURL(/status\.htm$/);
  return v;
}

// name-desktop.png and name-phone.png of the page as it is now.
export async function capture(page, name) {
  for (const [width, size] of [["desktop", DESKTOP], ["phone", PHONE]]) {
    await page.setViewportSize(size);
    await page.screenshot({ path: path.join(screenshots, `${name}-${width}.png`), fullPage: true });
  }
  await page.setViewportSize(DESKTOP);
}
