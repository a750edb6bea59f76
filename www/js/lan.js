// LAN: the gateway's address and DHCP range, and the port forwarding rules
// (PortMapping): the owner's rules can be added, edited and deleted; the
// operator's are shown but not offered for change.
import { call, read, say, settingsForm } from "./api.js";
import { el } from "./dom.js";

const rulesMessage = document.getElementById("rules-message");
const ruleForm = document.getElementById("rule-form");
const fields = ["Name", "Protocol", "ExternalPort", "InternalClient", "InternalPort", "Enable"];
let editing = null; // instance number of the rule in the form, null for a new one

async function loadRules() {
  const answer = await read("PortMapping");
  if (answer.error) say(rulesMessage, answer.error, "error");
  const rules = Object.entries(answer.PortMapping || {});
  document.getElementById("rules").replaceChildren(...rules.map(([n, rule]) => ruleRow(n, rule)));
}

function ruleRow(n, rule) {
  const mine = rule.User === "1";
  const actions = mine
    ? [el("button", { type: "button", class: "secondary", "aria-label": `Edit ${rule.Name}`, onclick: () => openForm(n, rule) }, "Edit"), " ",
       el("button", { type: "button", class: "danger", "aria-label": `Delete ${rule.Name}`, onclick: () => deleteRule(n, rule) }, "Delete")]
    : [el("span", { class: "muted" }, "Set by your provider")];
  return el("tr", {}, el("td", {}, rule.Name), el("td", {}, rule.Protocol), el("td", {}, rule.ExternalPort),
    el("td", {}, rule.InternalClient), el("td", {}, rule.InternalPort), el("td", {}, rule.Enable === "1" ? "yes" : "no"),
    el("td", {}, ...actions));
}

function openForm(n, rule) {
  editing = n;
  document.getElementById("rule-form-title").textContent = n ? `Edit rule ${rule.Name}` : "New rule";
  for (const name of fields) {
    const input = ruleForm.elements[name];
    if (input.type === "checkbox") input.checked = n ? rule[name] === "1" : true;
    else input.value = n ? rule[name] : name === "Protocol" ? "TCP" : "";
  }
  ruleForm.hidden = false;
  ruleForm.elements.Name.focus();
}

async function saveRule(event) {
  event.preventDefault();
  const object = editing ? `PortMapping_${editing}` : "PortMapping_0";
  const value = (name) => (ruleForm.elements[name].type === "checkbox" ? (ruleForm.elements[name].checked ? "1" : "0") : ruleForm.elements[name].value);
  // A new rule: create and fill it in one request ("_0_" is the instance
  // the create made), so that a refused value leaves no half rule behind.
  const writes = fields.map((name) => ["write", `${object}_${name}:${value(name)}`]);
  const answer = await call(editing ? writes : [["create", "PortMapping"], ...writes]);
  if (answer.error) return say(rulesMessage, `Rule not saved: ${answer.error}`, "error");
  ruleForm.hidden = true;
  await loadRules();
  say(rulesMessage, `Rule ${value("Name")} saved.`, "ok");
}

async function deleteRule(n, rule) {
  if (!confirm(`Delete the rule ${rule.Name}?`)) return;
  const answer = await call([["delete", `PortMapping_${n}`]]);
  if (answer.error) return say(rulesMessage, `Rule not deleted: ${answer.error}`, "error");
  await loadRules();
  say(rulesMessage, `Rule ${rule.Name} deleted.`, "ok");
}

const lanForm = document.getElementById("lan-form");
if (lanForm) {
  settingsForm(lanForm, { message: document.getElementById("lan-message") }).load(true);
  loadRules();
  document.getElementById("rule-add").addEventListener("click", () => openForm(null, {}));
  document.getElementById("rule-cancel").addEventListener("click", () => {
    ruleForm.hidden = true;
    say(rulesMessage, "Rule changes discarded.", "ok");
  });
  ruleForm.addEventListener("submit", saveRule);
}
