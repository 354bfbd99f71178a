// The first page: a login, the applications that the user may use, and the network settings
// for administrators.
const $ = (id) => document.getElementById(id);

const FIELDS = [
  { name: "hostname" }, { name: "comment" },
  { name: "mode", options: ["dhcp", "static"] },
  { name: "ip" }, { name: "mask" }, { name: "gateway" },
  { name: "mtu", inputmode: "numeric" },
  { name: "speed", options: ["10", "100", "1000", "2500", "10000"] },
  { name: "valid_from" },
];
const HTML_LANGUAGES = { enu: "en", ger: "de", jpn: "ja" };

let texts = {};
let token = "";
let lastMessage = null;

const text = (key) => texts[key] ?? key;

function chosenLanguage() {
  const cookie = document.cookie.match(/(?:^|; )lang=([a-z]{3})(?:;|$)/);
  if (cookie && HTML_LANGUAGES[cookie[1]]) return cookie[1];
  const tags = Object.entries(HTML_LANGUAGES);
  for (const wanted of navigator.languages) {
    const found = tags.find(([, tag]) => wanted.toLowerCase().split("-")[0] === tag);
    if (found) return found[0];
  }
  return "enu";
}

async function setLanguage(code) {
  texts = await (await fetch(`/first/texts.${code}.json`)).json();
  document.documentElement.lang = HTML_LANGUAGES[code];
  $("language").value = code;
  for (const node of document.querySelectorAll("[data-text]")) {
    node.textContent = text(node.dataset.text);
  }
  if (lastMessage) say(...lastMessage);
}

function say(key, kind) {
  lastMessage = key ? [key, kind] : null;
  $("message").textContent = key ? text(key) : "";
  $("message").className = kind ?? "";
}

async function send(program, fields) {
  const options = { headers: { "X-Vemo-Token": token } };
  let url = `/webman/${program}.cgi`;
  if (fields.action === "load" || !fields.action) {
    url += `?${new URLSearchParams(fields)}`;
  } else {
    options.method = "POST";
    options.body = new URLSearchParams(fields);
  }
  try {
    const response = await fetch(url, options);
    return { reason: response.headers.get("x-request-error"), ...await response.json() };
  } catch {
    return { success: false, errinfo: { sec: "common", key: "error_connection" } };
  }
}

function buildFields() {
  for (const field of FIELDS) {
    const box = document.createElement("div");
    box.className = "field";
    const label = document.createElement("label");
    label.htmlFor = `field-${field.name}`;
    label.dataset.text = field.name;
    const input = document.createElement(field.options ? "select" : "input");
    input.id = label.htmlFor;
    input.name = field.name;
    if (field.inputmode) input.inputMode = field.inputmode;
    for (const option of field.options ?? []) input.add(new Option(option, option));
    const error = document.createElement("p");
    error.className = "error";
    error.id = `error-${field.name}`;
    box.append(label, input, error);
    $("fields").append(box);
  }
}

function showErrors(errors) {
  let first = null;
  for (const { name } of FIELDS) {
    const input = $(`field-${name}`);
    const problem = errors[name];
    $(`error-${name}`).textContent = problem ?? "";
    input.toggleAttribute("aria-invalid", false);
    input.removeAttribute("aria-describedby");
    if (!problem) continue;
    input.setAttribute("aria-invalid", "true");
    input.setAttribute("aria-describedby", `error-${name}`);
    first ??= input;
  }
  first?.focus();
}

// --- Applications ---

// What the applications share is one of the registry's scripts itself.
let desktop = null;

async function loadDesktop() {
  desktop ??= await import("/webman/modules/Utils/utils.js");
  desktop.setToken(token);
  return desktop.loadRegistry();
}

function addSheets(styles) {
  for (const address of styles) {
    if (document.querySelector(`link[href="/${CSS.escape(address)}"]`)) continue;
    const link = document.createElement("link");
    link.rel = "stylesheet";
    link.href = `/${address}`;
    document.head.append(link);
  }
}

async function openApplication(script, id) {
  say(null);
  $("network").hidden = true;
  $("application").hidden = false;
  try {
    await import(`/${script}`);
    await desktop.show(id, $("application"));
  } catch {
    say("error_system", "bad");
  }
}

function launcherOf(script, id, entry) {
  const title = desktop.titleOf({ id, title: entry.title });
  if (entry.type === "app") {
    const button = document.createElement("button");
    button.type = "button";
    button.textContent = title;
    button.dataset.app = id;
    button.addEventListener("click", () => openApplication(script, id));
    return button;
  }
  const link = document.createElement("a");
  link.textContent = title;
  link.title = entry.desc ?? "";
  link.href = entry.url;
  link.target = "_blank";
  link.rel = "noopener noreferrer";
  return link;
}

// A launcher that a package brings as a link is shown to whom the package says; an
// application to those who may use it.
const isShown = (entry, id, mine) => entry.type === "app" ? mine.apps.includes(id)
  : (entry.type === "url" || entry.type === "legacy") && /^https?:/.test(entry.url ?? "")
    && (entry.allUsers || mine.admin);

async function showApplications() {
  const list = $("applications").querySelector("ul");
  list.replaceChildren();
  const registry = await loadDesktop();
  const mine = await desktop.call("apps", "get");
  if (!registry || !mine.success) return;
  const { styles, scripts } = registry;
  addSheets(styles);
  const items = [];
  for (const [script, entries] of Object.entries(scripts)) {
    for (const [id, entry] of Object.entries(entries)) {
      if (isShown(entry, id, mine.data)) items.push(launcherOf(script, id, entry));
    }
  }
  items.sort((a, b) => a.textContent.localeCompare(b.textContent));
  for (const item of items) {
    const place = document.createElement("li");
    place.append(item);
    list.append(place);
  }
  $("applications").hidden = items.length === 0;
}

function hideApplications() {
  $("applications").hidden = true;
  $("application").hidden = true;
  $("application").replaceChildren();
}

function showLogin() {
  token = "";
  hideApplications();
  $("who").hidden = true;
  $("network").hidden = true;
  $("login").hidden = false;
  $("username").focus();
}

// A refusal names a section and a key, and its reason in a header: whoever has no
// session any more is led to the login, whoever has too few rights is not.
function refused(answer) {
  const problem = answer.errno ?? answer.errinfo;
  say(problem?.key ?? "error_system", "bad");
  if (answer.reason && answer.reason !== "noprivilege") showLogin();
}

async function showForm(user) {
  $("user").textContent = user;
  $("who").hidden = false;
  $("login").hidden = true;
  $("passwd").value = "";
  await showApplications().catch(() => say("error_connection", "bad"));
  const answer = await send("network", { action: "load" });
  $("network").hidden = !answer.success;
  if (!answer.success) return refused(answer);
  for (const { name } of FIELDS) $(`field-${name}`).value = answer.data[name];
  showErrors({});
}

$("login").addEventListener("submit", async (event) => {
  event.preventDefault();
  say(null);
  const fields = Object.fromEntries(new FormData(event.target));
  const answer = await send("login", { action: "login", ...fields });
  if (answer.success) {
    token = answer.data.token;
    // A port that serves one application alone shows it now.
    if ((await send("session", {})).data?.app) return location.reload();
    return showForm(answer.data.user);
  }
  say(answer.errinfo?.key ?? "error_system", "bad");
  if (answer.errinfo?.key === "error_code_needed") {
    $("code-field").hidden = false;
    $("otp_code").focus();
  }
});

$("network").addEventListener("submit", async (event) => {
  event.preventDefault();
  say(null);
  const fields = Object.fromEntries(new FormData(event.target));
  const answer = await send("network", { action: "apply", ...fields });
  showErrors(answer.errors ?? {});
  if (answer.success) say("applied", "good");
  else if (answer.errors) say("check_fields", "bad");
  else refused(answer);
});

$("logout").addEventListener("click", async () => {
  await send("logout", { action: "logout" });
  say("logged_out", "good");
  showLogin();
});

$("language").addEventListener("change", async (event) => {
  document.cookie = `lang=${event.target.value}; path=/; samesite=lax; max-age=31536000`;
  await setLanguage(event.target.value);
  if (token) location.reload();
});

buildFields();
await setLanguage(chosenLanguage());
const session = await send("session", {});
if (session.success) {
  token = session.data.token;
  await showForm(session.data.user);
} else {
  showLogin();
}
