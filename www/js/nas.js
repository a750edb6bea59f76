import { unescapeSsi } from "./api.js";

// The pages' side of nas.cgi: reads are GETs, changes are same-origin POSTs;
// listings and playlists come back as XML.

function query(fields) {
  return new URLSearchParams(Object.entries(fields)).toString();
}

async function xml(response) {
  if (!response.ok) throw new Error(`the disk service answered ${response.status} ${response.statusText}`);
  return new DOMParser().parseFromString(await response.text(), "text/xml");
}

export const songUrl = (disk, file) => `nas.cgi?${query({ iNasGetSong: 1, disk, file })}`;
export const fileUrl = (disk, file) => `nas.cgi?${query({ iNasGetFile: 1, disk, file })}`;
export const thumbUrl = (disk, file) => `nas.cgi?${query({ iNasGetThumb: 1, disk, file })}`;
export const m3uUrl = (disk, name) => `nas.cgi?${query({ iNasPlayPlaylist: 1, disk, name })}`;

export async function get(fields) {
  return xml(await fetch(`nas.cgi?${query(fields)}`, { cache: "no-store" }));
}

export async function post(fields) {
  const response = await fetch("nas.cgi", { method: "POST", body: new URLSearchParams(Object.entries(fields)) });
  if (!response.ok) throw new Error(`the disk service answered ${response.status} ${response.statusText}`);
  return response;
}

// [{name, dir, size}] of a folder listing, folders first.
export async function folder(disk, path) {
  const doc = await get({ iNasGetFolderContent: 1, disk, path });
  if (doc.querySelector("folder > errno")) throw new Error(`the folder ${path || "/"} cannot be opened`);
  const items = [...doc.querySelectorAll("folderset > item")].map((item) => ({
    name: item.querySelector("name").textContent,
    dir: item.querySelector("dir").textContent === "1",
    size: Number(item.querySelector("size").textContent),
  }));
  return items.sort((a, b) => b.dir - a.dir || a.name.localeCompare(b.name));
}

export async function playlist(disk, name) {
  const doc = await get({ iNasGetPlaylist: 1, disk, name });
  return [...doc.querySelectorAll("playlistset > path")].map((p) => p.textContent);
}

// Playlist names of a disk, from the page symbol that lists them
// (disk TAB name VT ...).
export async function playlists(disk) {
  const page = await (await fetch("playlists.htm", { cache: "no-store" })).text();
  const text = unescapeSsi(/"playlists": "(.*)"\}/s.exec(page)?.[1] || "");
  return text.split("\v").filter(Boolean).map((item) => item.split("\t")).filter(([d]) => d === disk).map(([, name]) => name).sort();
}
