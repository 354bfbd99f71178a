// The network settings.
import { application, call, element, frame } from "/webman/modules/Utils/utils.js";

const FIELDS = ["hostname", "comment", "mode", "ip", "mask", "gateway", "mtu", "speed", "valid_from"];

application("VEMO.Network", async (root, context) => {
  const { content, say, fail } = frame(root, context);
  const answer = await call("network", "load");
  if (!answer.success) return fail(answer);
  const errors = {};
  const form = element("form", { className: "network" });
  for (const name of FIELDS) {
    const input = element("input", { name, value: answer.data[name] ?? "" });
    errors[name] = element("span", { className: "error" });
    form.append(element("label", {}, context.text(`field:${name}`), input, errors[name]));
  }
  form.append(element("button", { type: "submit" }, context.text("common:apply")));
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    const stored = await call("network", "apply", Object.fromEntries(new FormData(form)));
    for (const name of FIELDS) errors[name].textContent = stored.errors?.[name] ?? "";
    if (stored.success) say(context.text("common:applied"));
    else if (stored.errors) say(context.text("common:check_fields"), "bad");
    else fail(stored);
  });
  content.append(form);
});
