// 9. Disk: browse, play a song, download, upload with progress, rename,
// delete, thumbnails of pictures, playlists.
import assert from "node:assert/strict";
import { existsSync, readdirSync, readFileSync } from "node:fs";
import { capture, rootPath, signedIn } from "../harness.js";

const disk = (...parts) => rootPath("var/mnt/usb1", ...parts);
const rowOf = (page, name) => page.locator("#files tr").filter({ hasText: name });

async function browseAndPlay(page) {
  await page.getByRole("button", { name: "Open folder Music" }).click();
  await rowOf(page, "Interlude.mp3").waitFor();
  await page.getByRole("button", { name: "Play Interlude.mp3" }).click();
  await page.getByText("Now playing: Interlude.mp3").waitFor();
  const song = await page.evaluate(async () => {
    const response = await fetch(document.getElementById("player").src);
    return { type: response.headers.get("content-type"), size: (await response.arrayBuffer()).byteLength };
  });
  assert.deepEqual(song, { type: "audio/mpeg", size: readFileSync(disk("Music/Interlude.mp3")).length });

  const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("link", { name: "Download Live.aac" }).click()]);
  assert.equal(download.suggestedFilename(), "Live.aac");
  assert.deepEqual(readFileSync(await download.path()), readFileSync(disk("Music/Live.aac")));
}

async function uploadRenameDelete(page) {
  const message = page.locator("#disk-message");
  await page.locator("#crumbs").getByRole("button", { name: "usb1" }).click();
  await page.getByRole("button", { name: "Open folder Pictures" }).click();
  // A real picture: a PNG of this page, 200 x 150 pixels.
  const picture = await page.screenshot({ clip: { x: 0, y: 0, width: 200, height: 150 } });
  await page.getByLabel("File", { exact: true }).setInputFiles({ name: "holiday.png", mimeType: "image/png", buffer: picture });
  const thumbStored = page.waitForResponse((r) => r.request().method() === "POST" && /iNasAddThumb=1/.test(r.request().postData() || ""));
  await page.getByRole("button", { name: "Upload", exact: true }).click();
  await message.getByText("holiday.png uploaded.").waitFor();
  assert.equal(await page.locator("#upload-progress").evaluate((bar) => bar.value), 100);
  assert.deepEqual(readFileSync(disk("Pictures/holiday.png")), picture);

  // The listing shows the picture; a thumbnail is made and stored once.
  assert.equal((await thumbStored).status(), 200);
  const thumbs = readdirSync(disk(".quelm")).filter((f) => f.endsWith(".png"));
  assert.equal(thumbs.length, 1);
  assert.deepEqual([...readFileSync(disk(".quelm", thumbs[0])).subarray(1, 4)], [...Buffer.from("PNG")]);
  await page.reload();
  await page.getByRole("button", { name: "Open folder Pictures" }).click();
  const thumb = page.getByRole("img", { name: "Thumbnail of holiday.png" });
  await page.waitForFunction((img) => img.complete && img.naturalWidth === 64, await thumb.elementHandle());
  await capture(page, "disk");

  page.once("dialog", (dialog) => dialog.accept("beach.png"));
  await page.getByRole("button", { name: "Rename holiday.png" }).click();
  await message.getByText("holiday.png is now beach.png.").waitFor();
  await rowOf(page, "beach.png").waitFor();
  assert.ok(existsSync(disk("Pictures/beach.png")) && !existsSync(disk("Pictures/holiday.png")));

  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Delete beach.png" }).click();
  await message.getByText("beach.png deleted.").waitFor();
  assert.equal(await rowOf(page, "beach.png").count(), 0);
  assert.ok(!existsSync(disk("Pictures/beach.png")));
}

async function playlists(page) {
  const items = page.locator("#playlist-items li");
  await page.getByLabel("New playlist").fill("Road trip");
  await page.getByRole("button", { name: "Create playlist" }).click();
  await page.getByText("Playlist Road trip created.").waitFor();
  assert.equal(await page.getByLabel("Playlist", { exact: true }).inputValue(), "Road trip");
  await page.locator("#crumbs").getByRole("button", { name: "usb1" }).click();
  await page.getByRole("button", { name: "Open folder Music" }).click();
  await page.getByRole("button", { name: "Add Interlude.mp3 to the playlist" }).click();
  await page.getByRole("button", { name: "Add Live.aac to the playlist" }).click();
  await items.nth(1).getByText("Live.aac").waitFor();
  await page.getByRole("button", { name: "Move Music/Live.aac up" }).click();
  await items.nth(0).getByText("Live.aac").waitFor();
  const m3u = disk(".playlists/Road trip.m3u");
  assert.equal(readFileSync(m3u, "utf8"), "Music/Live.aac\nMusic/Interlude.mp3\n");
  await page.getByRole("button", { name: "Remove Music/Live.aac from the playlist" }).click();
  await page.waitForFunction(() => document.querySelectorAll("#playlist-items li").length === 1);
  assert.equal(readFileSync(m3u, "utf8"), "Music/Interlude.mp3\n");
  await page.getByRole("button", { name: "Play the playlist" }).click();
  await page.getByText("Now playing: Interlude.mp3").waitFor();

  page.once("dialog", (dialog) => dialog.accept());
  await page.getByRole("button", { name: "Delete the playlist" }).click();
  await page.getByText("Playlist Road trip deleted.").waitFor();
  assert.ok(!existsSync(m3u));
  assert.equal(await page.getByLabel("Playlist", { exact: true }).inputValue(), "Favourites");
}

export async function diskFlow() {
  const { page, close } = await signedIn();
  await page.goto("/disk.htm");
  await browseAndPlay(page);
  await uploadRenameDelete(page);
  await playlists(page);
  await close();
}
