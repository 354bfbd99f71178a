// Notes that the user keeps on the appliance.
import { application, call, element, frame } from "/webman/modules/Utils/utils.js";

const NAME = "notes";

application("VEMO.Notes", async (root, context) => {
  const { content, say, fail } = frame(root, context);
  const kept = await call("moduledata", "list");
  if (!kept.success) return fail(kept);
  const text = kept.data.includes(NAME) ? (await call("moduledata", "get", { name: NAME })).data?.data?.text : "";
  const field = element("textarea", { className: "notes" });
  field.value = text ?? "";
  const save = element("button", { type: "button" }, context.text("common:apply"));
  save.addEventListener("click", async () => {
    const stored = await call("moduledata", "write", { name: NAME, data: { text: field.value } });
    if (stored.success) say(context.text("common:applied"));
    else fail(stored);
  });
  content.append(element("label", {}, context.text("app:text"), field), save);
});
