// The signed sign-in: the page sends the seed made from the session key,
// the user name and the password (never the password itself) and reloads
// itself with ?pwd=ko after a refusal, when the lockout state is rendered
// afresh.
import { loginSeed, sessionKey } from "./cipher.js";
import { say } from "./api.js";

const form = document.getElementById("signin");
const message = document.getElementById("signin-message");

function readState() {
  try {
    const state = JSON.parse(document.getElementById("signin-state").textContent);
    return { blockedUntil: Number(state.blockedUntil) || 0, now: Number(state.now) || 0 };
  } catch {
    return { blockedUntil: 0, now: 0 };
  }
}

function showState() {
  const { blockedUntil, now } = readState();
  const query = new URLSearchParams(location.search);
  if (blockedUntil > now) {
    const seconds = blockedUntil - now;
    say(message, `Too many failed sign-ins: signing in is blocked for ${seconds} more second${seconds === 1 ? "" : "s"}.`, "error");
  } else if (query.get("pwd") === "ko") {
    say(message, "Wrong user name or password. Please try again.", "error");
  } else if (query.has("signedout")) {
    say(message, "You are signed out.", "ok");
  }
}

async function signIn(event) {
  event.preventDefault();
  const key = sessionKey();
  if (!key) return say(message, "This browser refused the session cookie; allow cookies for the gateway and reload.", "error");
  const seed = await loginSeed(key, form.login.value, form.password.value);
  const body = new URLSearchParams({ seed, level: "admin", redirect: "no" });
  const response = await fetch("login.cgi", { method: "POST", body });
  const answer = await response.text();
  if (/"codeError": 0/.test(answer)) {
    // The Users page changes the password of the user signed in here.
    sessionStorage.setItem("user", form.login.value);
    location.replace("status.htm");
  }
  else location.replace("index.htm?pwd=ko");
}

if (form) {
  showState();
  form.addEventListener("submit", signIn);
  form.login.focus();
}
