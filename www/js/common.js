// What every page does: mark its menu entry, sign out, and show the error
// of the last form post (the iCgiError value rendered into the header).
import { fct, say } from "./api.js";

const cgiErrorTexts = {
  8: "Refused: this needs a signed-in administrator.",
  10: "The gateway ran out of memory or could not examine the file.",
  20: "The file could not be found, read or written.",
  22: "The gateway takes only its own binary backup files.",
  23: "The backup could not be made.",
  24: "A value the request needs is missing.",
  25: "An entry of that name exists already.",
};

export function cgiErrorText(code) {
  const n = Number(code);
  if (!n) return "";
  return `${cgiErrorTexts[n] || "The last request failed."} (error ${n})`;
}

function showLastFormError() {
  const el = document.getElementById("cgi-error");
  const code = el ? JSON.parse(el.textContent) : "";
  const banner = document.getElementById("page-error");
  if (banner) say(banner, cgiErrorText(code), "error");
}

function markMenu() {
  const page = location.pathname.split("/").pop() || "index.htm";
  for (const link of document.querySelectorAll("nav a")) {
    if (link.getAttribute("href") === page) link.setAttribute("aria-current", "page");
  }
}

async function signOut() {
  const { value, error } = await fct("disconnect_session");
  if (error || value !== "SUCCESS") {
    say(document.getElementById("page-error"), `Could not sign out: ${error || value}`, "error");
    return;
  }
  location.replace("index.htm?signedout=1");
}

markMenu();
showLastFormError();
document.getElementById("sign-out")?.addEventListener("click", signOut);
