// Disk: browse the folders of a disk, play songs, download, upload with
// progress, rename, delete, thumbnails of pictures (made here and stored on
// the disk by the gateway) and playlists (js/playlists.js).
import { read, say } from "./api.js";
import { el } from "./dom.js";
import { fileUrl, folder, post, songUrl, thumbUrl } from "./nas.js";
import { initPlaylists, playlistTargets } from "./playlists.js";
import { upload } from "./upload.js";

const THUMB_PX = 64;
const SONG = /\.(mp3|aac|wma)$/i;
const PICTURE = /\.(png|jpe?g|gif|webp)$/i;
const message = document.getElementById("disk-message");
const state = { disk: "", path: "" };
const join = (...parts) => parts.filter(Boolean).join("/");

export function play(disk, file) {
  const player = document.getElementById("player");
  player.src = songUrl(disk, file);
  document.getElementById("now-playing").textContent = `Now playing: ${file.split("/").pop()}`;
  player.play().catch(() => {});
}

async function open(path) {
  state.path = path;
  try {
    const items = await folder(state.disk, path);
    document.getElementById("files").replaceChildren(...items.map(row));
    crumbs();
  } catch (error) {
    say(message, `This folder cannot be shown: ${error.message}`, "error");
  }
}

function crumbs() {
  const parts = state.path.split("/").filter(Boolean);
  const links = [el("button", { type: "button", class: "secondary", onclick: () => open("") }, state.disk)];
  parts.forEach((part, i) => links.push(" / ", el("button", { type: "button", class: "secondary", onclick: () => open(parts.slice(0, i + 1).join("/")) }, part)));
  document.getElementById("crumbs").replaceChildren(...links);
}

function row(item) {
  const file = join(state.path, item.name);
  const name = item.dir
    ? el("button", { type: "button", class: "secondary", "aria-label": `Open folder ${item.name}`, onclick: () => open(file) }, `📁 ${item.name}`)
    : el("span", {}, PICTURE.test(item.name) ? thumbnail(file, item.name) : null, " ", item.name);
  const actions = [];
  if (SONG.test(item.name)) {
    actions.push(el("button", { type: "button", "aria-label": `Play ${item.name}`, onclick: () => play(state.disk, file) }, "Play"));
    actions.push(el("button", { type: "button", class: "secondary", "aria-label": `Add ${item.name} to the playlist`, onclick: () => playlistTargets.add(state.disk, state.path, item.name) }, "Add to playlist"));
  }
  if (!item.dir) actions.push(el("a", { class: "button secondary", href: fileUrl(state.disk, file), download: item.name, "aria-label": `Download ${item.name}` }, "Download"));
  actions.push(el("button", { type: "button", class: "secondary", "aria-label": `Rename ${item.name}`, onclick: () => rename(item.name) }, "Rename"));
  actions.push(el("button", { type: "button", class: "danger", "aria-label": `Delete ${item.name}`, onclick: () => remove(item.name) }, "Delete"));
  return el("tr", {}, el("td", {}, name), el("td", { class: "hide-narrow" }, item.dir ? "" : size(item.size)),
    el("td", {}, el("span", { class: "actions" }, ...actions)));
}

const size = (n) => (n >= 1048576 ? `${(n / 1048576).toFixed(1)} MB` : n >= 1024 ? `${Math.round(n / 1024)} kB` : `${n} bytes`);

// The gateway answers the stored thumbnail, or the picture itself while it
// has none: then one is made from the picture and stored.
function thumbnail(file, name) {
  const img = el("img", { class: "thumb", alt: `Thumbnail of ${name}`, src: thumbUrl(state.disk, file) });
  const { disk, path } = state;
  // A picture the browser cannot show (a damaged file) gets no thumbnail.
  img.addEventListener("error", () => img.remove(), { once: true });
  img.addEventListener("load", () => {
    if (img.naturalWidth <= THUMB_PX && img.naturalHeight <= THUMB_PX) return;
    const canvas = el("canvas", { width: THUMB_PX, height: THUMB_PX });
    const scale = Math.max(THUMB_PX / img.naturalWidth, THUMB_PX / img.naturalHeight);
    const w = img.naturalWidth * scale, h = img.naturalHeight * scale;
    canvas.getContext("2d").drawImage(img, (THUMB_PX - w) / 2, (THUMB_PX - h) / 2, w, h);
    const data = canvas.toDataURL("image/png").split(",")[1];
    post({ iNasAddThumb: 1, disk, path, name, data }).catch(() => {});
  }, { once: true });
  return img;
}

async function rename(name) {
  const newname = prompt(`New name for ${name}:`, name);
  if (!newname || newname === name) return say(message, "Nothing was renamed.", "");
  if (/[/\\]/.test(newname)) return say(message, "A name cannot hold a slash.", "error");
  const exists = (await folder(state.disk, state.path)).some((i) => i.name === newname);
  if (exists) return say(message, `Not renamed: an entry named ${newname} exists already.`, "error");
  await change(() => post({ iNasRenameFile: 1, disk: state.disk, path: state.path, name, newname }), `${name} is now ${newname}.`);
}

async function remove(name) {
  if (!confirm(`Delete ${name}${state.path ? ` from ${state.path}` : ""}? This cannot be undone.`)) return;
  await change(() => post({ iNasDeleteFile: 1, disk: state.disk, path: state.path, name }), `${name} deleted.`);
}

// The listing is shown afresh before the outcome is told.
async function change(request, done) {
  let outcome = [done, "ok"];
  try {
    await request();
  } catch (error) {
    outcome = [`Not done: ${error.message}`, "error"];
  }
  await open(state.path);
  say(message, ...outcome);
}

async function uploadFile(event) {
  event.preventDefault();
  const form = event.target;
  const file = form.elements.UploadFile.files[0];
  const bar = document.getElementById("upload-progress");
  if ((await folder(state.disk, state.path)).some((i) => i.name === file.name)) {
    return say(message, `Not uploaded: ${file.name} exists already in this folder.`, "error");
  }
  const url = `nas.cgi/upload/1/disk/${encodeURIComponent(state.disk)}`;
  const fields = [["iNasAddFile", "1"], ["disk", state.disk], ["path", state.path], ["UploadFile", file]];
  const answer = await upload(url, fields, (p) => { bar.value = p; }).catch((e) => ({ status: 0, text: e.message }));
  await open(state.path);
  if (answer.status === 200) {
    bar.value = 100;
    say(message, `${file.name} uploaded.`, "ok");
    form.reset();
  } else say(message, `Not uploaded: the disk service answered ${answer.status || answer.text}.`, "error");
}

async function start() {
  const answer = await read("Storage_Item");
  const disks = Object.values(answer.Storage_Item || {}).filter((d) => d.Status?.State === "ConnectedMounted").map((d) => d.Name);
  const select = document.getElementById("disk");
  select.replaceChildren(...disks.map((d) => el("option", { value: d }, d)));
  if (!disks.length) return say(message, "No disk is connected.", "");
  state.disk = disks[0];
  select.addEventListener("change", () => { state.disk = select.value; open(""); initPlaylists(state.disk); });
  document.getElementById("upload-form").addEventListener("submit", uploadFile);
  await open("");
  await initPlaylists(state.disk);
}

if (document.getElementById("files")) start();
