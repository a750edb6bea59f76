// Playlists of the Disk page: create, fill from the file list, reorder,
// remove items, play one after another, download as M3U, delete.
import { say } from "./api.js";
import { el } from "./dom.js";
import { m3uUrl, playlist, playlists, post } from "./nas.js";
import { play } from "./disk.js";

const message = document.getElementById("disk-message");
const select = document.getElementById("playlist");
let disk = "";

const current = () => select.value;

async function showItems() {
  const name = current();
  const list = document.getElementById("playlist-items");
  document.getElementById("playlist-m3u").href = name ? m3uUrl(disk, name) : "#";
  if (!name) return list.replaceChildren();
  const songs = await playlist(disk, name);
  list.replaceChildren(...songs.map((song, i) => el("li", {}, song.split("/").pop(), " ",
    el("span", { class: "actions" },
      el("button", { type: "button", class: "secondary", "aria-label": `Move ${song} up`, disabled: i === 0, onclick: () => edit("iNasMoveUpPlaylistItem", song) }, "Up"),
      el("button", { type: "button", class: "secondary", "aria-label": `Move ${song} down`, disabled: i === songs.length - 1, onclick: () => edit("iNasMoveDownPlaylistItem", song) }, "Down"),
      el("button", { type: "button", class: "danger", "aria-label": `Remove ${song} from the playlist`, onclick: () => edit("iNasDeletePlaylistItem", song) }, "Remove")))));
}

async function edit(operation, song) {
  try {
    await post({ [operation]: 1, disk, name: current(), song, nb: 1 });
  } catch (error) {
    say(message, `The playlist was not changed: ${error.message}`, "error");
  }
  await showItems();
}

async function fill(selected) {
  const names = await playlists(disk);
  select.replaceChildren(...names.map((n) => el("option", { value: n }, n)));
  if (selected && names.includes(selected)) select.value = selected;
  await showItems();
}

export const playlistTargets = {
  async add(d, path, song) {
    if (!current()) return say(message, "Create a playlist first.", "error");
    await post({ iNasAddPlaylistItem: 1, disk: d, name: current(), path, song });
    await showItems();
    say(message, `${song} added to ${current()}.`, "ok");
  },
};

async function create(event) {
  event.preventDefault();
  const name = event.target.elements.name.value;
  if ((await playlists(disk)).includes(name)) return say(message, `A playlist named ${name} exists already.`, "error");
  await post({ iNasAddPlaylist: 1, disk, name });
  event.target.reset();
  await fill(name);
  say(message, `Playlist ${name} created.`, "ok");
}

async function removePlaylist() {
  const name = current();
  if (!name || !confirm(`Delete the playlist ${name}? The songs stay on the disk.`)) return;
  await post({ iNasDeletePlaylist: 1, disk, name });
  await fill();
  say(message, `Playlist ${name} deleted.`, "ok");
}

async function playAll() {
  const songs = current() ? await playlist(disk, current()) : [];
  if (!songs.length) return say(message, "This playlist is empty.", "");
  const player = document.getElementById("player");
  let next = 0;
  const step = () => { if (next < songs.length) play(disk, songs[next++]); };
  player.onended = step;
  step();
}

let wired = false;
export async function initPlaylists(d) {
  disk = d;
  if (!wired) {
    wired = true;
    select.addEventListener("change", showItems);
    document.getElementById("playlist-new").addEventListener("submit", create);
    document.getElementById("playlist-delete").addEventListener("click", removePlaylist);
    document.getElementById("playlist-play").addEventListener("click", playAll);
  }
  await fill();
}
