// Status: what the gateway is and how its lines are, read through
// generic.cgi with the page's read-only token.
import { call, fct, say } from "./api.js";
import { factRows } from "./dom.js";

const message = document.getElementById("status-message");

const kbits = (v) => (Number(v) >= 1000 ? `${(Number(v) / 1000).toFixed(1)} Mbit/s` : `${Number(v) || 0} kbit/s`);
const sum = (o) => (Number(o?.InterleavedChannel) || 0) + (Number(o?.FastChannel) || 0);

function duration(seconds) {
  const s = Math.floor(seconds);
  const d = Math.floor(s / 86400), h = Math.floor((s % 86400) / 3600), m = Math.floor((s % 3600) / 60);
  return `${d ? `${d} d ` : ""}${h} h ${m} min`;
}

function wanRows(a) {
  const dsl = a.WANDSLInterfaceConfig || {};
  const docsis = a.DOCSIS || {};
  if (docsis.Status?.Enable === "1") {
    const ifs = docsis.Management?.Interfaces || {};
    return [["Line", "Cable (DOCSIS)"], ["Download", kbits(ifs["3"]?.Speed)], ["Upload", kbits(ifs["4"]?.Speed)]];
  }
  if (dsl.Enable !== "1") return [["Line", "No DSL line configured"]];
  return [
    ["Line", `DSL (${dsl.ModulationType || "unknown modulation"})`],
    ["Line status", dsl.Status || "unknown"],
    ["Download", kbits(sum(a.WANDSLLinkStatus?.DownBitrates))],
    ["Upload", kbits(sum(a.WANDSLLinkStatus?.UpBitrates))],
  ];
}

function diskRows(items) {
  const list = Object.values(items || {});
  if (!list.length) return [["Disk", "No disk connected"]];
  return list.flatMap((d) => [
    ["Disk", `${d.Name} (${[d.Vendor, d.Model].filter(Boolean).join(" ")})`],
    ["State", d.Status?.State === "ConnectedMounted" ? "Connected and ready" : d.Status?.State || "unknown"],
    ["Capacity", `${Number(d.Capacity) || 0} MB`],
  ]);
}

async function refresh() {
  const a = await call([
    ["read", "Device"], ["read", "WANDSLInterfaceConfig"], ["read", "WANDSLLinkStatus"], ["read", "DOCSIS"],
    ["read", "LANDevice_1"], ["read", "Storage_Item"],
  ]);
  if (a.error) say(message, a.error, "error");
  const dev = a.Device || {};
  const lan = a.LANDevice_1 || {};
  const ip = lan.IPInterface?.["1"] || {};
  const dhcp = lan.DHCPServer || {};
  const now = await fct("date", "%Y-%m-%d %H:%M:%S");
  const uptime = parseFloat(document.getElementById("uptime-raw").textContent);
  factRows("device", [
    ["Name", dev.Name], ["Model", dev.Model], ["Serial number", dev.SerialNumber],
    ["Hardware version", dev.HardwareVersion], ["Software version", dev.SoftwareVersion],
    ["Host name", `${dev.Hostname}.${dev.Domain}`], ["Gateway time", now.value || "unknown"],
    ["Up for", Number.isFinite(uptime) ? duration(uptime) : "unknown"],
  ]);
  factRows("wan", wanRows(a));
  factRows("lan", [
    ["IPv4 address", `${ip.IPAddress || "?"} / ${ip.SubnetMask || "?"}`],
    ["IPv6 address", `${lan.IPv6Status?.CurrentIPAddress || "none"} (prefix ${lan.IPv6Status?.CurrentPrefix || "none"})`],
    ["DHCP server", dhcp.Enable === "1" ? `on, ${dhcp.MinAddress} to ${dhcp.MaxAddress}` : "off"],
  ]);
  factRows("disk", diskRows(a.Storage_Item));
}

if (message) {
  document.getElementById("refresh").addEventListener("click", async () => {
    await refresh();
    say(message, "Refreshed.", "ok");
  });
  refresh();
}
