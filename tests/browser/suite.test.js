// The reference pages in a real browser: one test per flow a gateway owner
// goes through, against one server (scripts/browser-test.sh) and one
// chromium shared by all tests.
import { after, before, test } from "node:test";
import { startBrowser, stopBrowser } from "./harness.js";
import { lockout, signInAndOut } from "./flows/signin.js";
import { status } from "./flows/status.js";
import { wifi } from "./flows/wifi.js";
import { lan } from "./flows/lan.js";
import { users } from "./flows/users.js";
import { diagnostics, logs } from "./flows/diagnostics.js";
import { maintenance } from "./flows/maintenance.js";
import { diskFlow } from "./flows/disk.js";

// A flow that hangs fails instead of holding the suite.
const limit = { timeout: 120000 };

before(startBrowser);
after(stopBrowser);

test("1 sign in with the signed form, messages after a wrong password and a lockout, sign out", limit, async () => {
  await signInAndOut();
  await lockout();
});
test("2 status: device, line rates, LAN, disk and uptime", limit, status);
test("3 Wi-Fi: name, security, encrypted key, WPS, channel, default keys", limit, wifi);
test("4 LAN and DHCP settings, port forwarding rules added, edited and deleted", limit, lan);
test("5 password change and web accounts", limit, users);
test("6 diagnostics: ping, traceroute, nslookup started, polled and stopped", limit, diagnostics);
test("7 logs: refresh and clear", limit, logs);
test("8 maintenance: firmware with flashing progress, backup and restore, restart, factory reset", limit, maintenance);
test("9 disk: browse, play, download, upload, rename, delete, thumbnails, playlists", limit, diskFlow);
