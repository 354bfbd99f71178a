// Background pictures and themes.
import { application, call, element, frame } from "/webman/modules/Utils/utils.js";

const KINDS = ["desktop", "login", "sharing"];

function base64Of(file) {
  return new Promise((resolve, reject) => {
    const reader = new FileReader();
    reader.addEventListener("load", () => resolve(reader.result.split(",")[1] ?? ""));
    reader.addEventListener("error", reject);
    reader.readAsDataURL(file);
  });
}

function slotButton(context, kind, slot, index, current, choose) {
  const label = context.text("app:slot", index + 1);
  if (!slot) return element("li", { className: "empty" }, label);
  const picture = element("img", { src: slot.thumbnail, alt: label, width: 120, loading: "lazy" });
  const button = element("button", { type: "button", ariaPressed: String(index === current) }, picture);
  button.addEventListener("click", () => choose(kind, index));
  return element("li", {}, button);
}

async function section(context, kind, parts, redraw) {
  const answer = await call("appearance", "list", { kind });
  if (!answer.success) return null;
  const change = async (action, fields) => {
    const done = await call("appearance", action, fields);
    if (!done.success) return parts.fail(done);
    await redraw();
    parts.say(context.text("common:applied"));
  };
  const slots = answer.data.slots.map((slot, index) =>
    slotButton(context, kind, slot, index, answer.data.current, (of, number) => change("choose", { kind: of, slot: number })));
  const chosen = element("input", { type: "file", accept: "image/png,image/jpeg,image/gif,image/bmp" });
  chosen.addEventListener("change", async () => {
    if (chosen.files.length) change("upload", { kind, data: await base64Of(chosen.files[0]) });
  });
  return element("section", {}, element("h3", {}, context.text(`app:${kind}`)),
    element("ul", { className: "slots" }, ...slots),
    element("label", {}, context.text("app:upload"), chosen));
}

async function themes(context, parts) {
  const answer = await call("appearance", "load");
  if (!answer.success) return null;
  const select = element("select", {}, ...answer.data.themes.map((name) => new Option(name, name)));
  select.value = answer.data.theme;
  select.addEventListener("change", async () => {
    const done = await call("appearance", "apply", { theme: select.value });
    if (done.success) parts.say(context.text("common:applied"));
    else parts.fail(done);
  });
  return element("section", {}, element("h3", {}, context.text("app:theme")),
    element("label", {}, context.text("app:theme"), select));
}

application("VEMO.Appearance", async (root, context) => {
  const parts = frame(root, context);
  const redraw = async () => {
    const sections = [];
    for (const kind of KINDS) sections.push(await section(context, kind, parts, redraw));
    sections.push(await themes(context, parts));
    parts.content.replaceChildren(...sections.filter(Boolean));
  };
  await redraw();
});
