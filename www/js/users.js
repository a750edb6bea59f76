// Users: the signed-in user's password (current one required, both sent
// encrypted with the page's token as key, through login.cgi) and the web
// accounts switched on or off.
import { pageData, read, say, settingsForm } from "./api.js";
import { encryptValue } from "./cipher.js";
import { el } from "./dom.js";

const passwordForm = document.getElementById("password-form");
const passwordMessage = document.getElementById("password-message");

async function changePassword(event) {
  event.preventDefault();
  const f = passwordForm.elements;
  if (f.new1.value !== f.new2.value) return say(passwordMessage, "The two new passwords differ.", "error");
  const token = pageData().token;
  const body = new URLSearchParams({
    cust_auth: "1", request: "password", token, login: sessionStorage.getItem("user") || "admin",
    currentpassword: encryptValue(token, f.current.value), newpassword1: encryptValue(token, f.new1.value),
  });
  const answer = await (await fetch("login.cgi", { method: "POST", body })).text();
  passwordForm.reset();
  // The answer moves the browser on: to the page's OK page, or back with
  // ?pwd=ko after a refusal.
  if (/pwd=ko/.test(answer) || !/OK\.htm/.test(answer)) {
    return say(passwordMessage, "Password not changed: the current password is wrong.", "error");
  }
  say(passwordMessage, "Password changed. Use the new password from your next sign-in on.", "ok");
}

const levels = (services) => (/(^|,)web_admin(,|$)/.test(services) ? "administrator" : "home network");

async function loadAccounts() {
  const answer = await read("User");
  const mine = Object.entries(answer.User || {}).filter(([, u]) => u.User === "1");
  document.getElementById("accounts").replaceChildren(...mine.map(([n, u]) => el("tr", {},
    el("td", {}, u.Username), el("td", {}, levels(u.Services)),
    el("td", {}, el("input", { type: "checkbox", id: `user-${n}`, "data-path": `User_${n}_Enable`, "aria-label": `Account ${u.Username} on` })))));
}

if (passwordForm) {
  passwordForm.addEventListener("submit", changePassword);
  loadAccounts().then(() => {
    const accounts = document.getElementById("accounts-form");
    settingsForm(accounts, { message: document.getElementById("accounts-message") }).load();
  });
}
