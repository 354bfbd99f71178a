// What the desktop's applications share: how they are started, how they ask programs, and
// the pieces of which their windows are made.

const applications = new Map();
let registry = null;
let token = "";

/** Asks a program of the appliance. `fields` are sent as a JSON document when there is an
 * action that changes something, else as a query. Never throws. */
export async function call(program, action, fields = {}) {
  const reading = ["load", "list", "get"].includes(action);
  const url = `/webman/${program}.cgi`;
  try {
    const response = reading
      ? await fetch(`${url}?${new URLSearchParams({ action, ...fields })}`)
      : await fetch(url, {
          method: "POST",
          headers: { "X-Vemo-Token": token, "Content-Type": "application/json" },
          body: JSON.stringify({ action, ...fields }),
        });
    return await response.json();
  } catch {
    return { success: false, errinfo: { sec: "common", key: "error_connection" } };
  }
}

/** Sends a file into a folder of a share, in slices, and goes on where the server says when one
 * is lost. `report` hears how much of it has arrived, from 0 to 1. */
export async function upload(file, path, report = () => {}) {
  const FIRST = 64 * 1024;
  const NEXT = 8 * 1024 * 1024;
  let id = null;
  let offset = 0;
  for (let failures = 0; failures < 5;) {
    const end = Math.min(file.size, offset + (id ? NEXT : FIRST));
    const answer = await sendSlice(file, path, offset, end, id);
    if (answer.success && answer.data.files?.length) return answer;
    failures = answer.success ? 0 : failures + 1;
    id = answer.data?.id ?? id;
    if (answer.data?.offset !== undefined) offset = answer.data.offset;
    // Without an offset the server knows nothing of it, unless it was not reached at all.
    else if (answer.errinfo?.key === "error_slice") [id, offset] = [null, 0];
    else if (answer.errinfo?.key !== "error_connection") return answer;
    report(file.size ? offset / file.size : 1);
  }
  return { success: false, errinfo: { sec: "common", key: "error_connection" } };
}

async function sendSlice(file, path, from, to, id) {
  const form = new FormData();
  form.append("file", file.slice(from, to), file.name);
  const headers = { "X-Vemo-Token": token };
  // A file of no bytes has no range.
  if (file.size > 0) headers["Content-Range"] = `bytes ${from}-${to - 1}/${file.size}`;
  if (id) headers["X-Tmp-File"] = id;
  try {
    const query = new URLSearchParams({ path });
    return await (await fetch(`/webman/upload.cgi?${query}`, { method: "POST", headers, body: form })).json();
  } catch {
    return { success: false, errinfo: { sec: "common", key: "error_connection" } };
  }
}

/** The desktop's registry; fetched once a page. */
export async function loadRegistry(app = "") {
  const query = app ? `?${new URLSearchParams({ app })}` : "";
  registry ??= (await (await fetch(`/webman/registry.cgi${query}`)).json()).data ?? null;
  return registry;
}

/** The token that changes need; the page that holds the session sets it. */
export function setToken(value) {
  token = value;
}

/** A text of an application, by "section:key"; {0}, {1} are filled in. */
export function textOf(id, name, ...values) {
  const [section, key] = name.split(":");
  const text = registry?.texts?.[id]?.[section]?.[key]
    ?? registry?.texts?.["VEMO.Utils"]?.[section]?.[key] ?? name;
  return text.replace(/\{(\d)\}/g, (all, index) => values[index] ?? all);
}

/** An element with properties and children. Texts become text, never markup. */
export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key in made) made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

/** A window's frame: a heading, a line that tells how things went, and the content. */
export function frame(root, context) {
  const status = element("p", { className: "status", role: "status" });
  const content = element("div", { className: "content" });
  const box = element("div", { className: "vemo-app" },
    element("h2", {}, context.text("app:title")), status, content);
  root.replaceChildren(box);
  const say = (text, kind = "good") => {
    status.textContent = text;
    status.className = `status ${kind}`;
  };
  const fail = (answer) => {
    const problem = answer.errinfo ?? answer.errno ?? {};
    say(context.text("common:error", problem.key ?? "?"), "bad");
  };
  return { box, content, say, fail };
}

/** A window that edits one JSON document of a program with "load" and "apply". */
export function documentWindow(program) {
  return async (root, context) => {
    const { content, say, fail } = frame(root, context);
    const answer = await call(program, "load");
    if (!answer.success) return fail(answer);
    const field = element("textarea", { spellcheck: false });
    field.value = JSON.stringify(answer.data.settings ?? answer.data, null, 2);
    const save = element("button", { type: "submit" }, context.text("common:apply"));
    const form = element("form", {}, element("label", {}, context.text("app:document"), field), save);
    form.addEventListener("submit", async (event) => {
      event.preventDefault();
      let settings;
      try {
        settings = JSON.parse(field.value);
      } catch {
        return say(context.text("common:bad_json"), "bad");
      }
      const stored = await call(program, "apply", { settings });
      if (stored.success) say(context.text("common:applied"));
      else fail(stored);
    });
    content.append(form);
  };
}

/** What an application is called: a text as it stands, or one of its texts. */
export function titleOf({ id, title }) {
  return /^[a-z]+:[a-z_]+$/.test(title ?? "") ? textOf(id, title) : title || id;
}

function contextOf(id) {
  return { id, call, title: titleOf, text: (name, ...values) => textOf(id, name, ...values) };
}

/** Shows an application, whose script must be loaded, in an element. */
export async function show(id, root) {
  await applications.get(id)(root, contextOf(id));
}

async function showAlone(id) {
  const session = await (await fetch("/webman/session.cgi")).json();
  setToken(session.data?.token ?? "");
  await loadRegistry(id);
  document.title = textOf(id, "app:title");
  await show(id, document.body);
}

/** Makes an application known. On a page of its own it starts at once. */
export function application(id, start) {
  applications.set(id, start);
  if (document.body.dataset.jsid === id) showAlone(id);
}
