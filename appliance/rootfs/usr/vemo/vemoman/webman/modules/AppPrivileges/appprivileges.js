// Who may use which application.
import { application, call, element, frame } from "/webman/modules/Utils/utils.js";

function grantForm(context, app, changed) {
  const kind = element("select", { name: "kind", ariaLabel: context.text("app:kind") },
    ...["user", "group", "everyone"].map((name) => new Option(context.text(`app:${name}`), name)));
  const name = element("input", { name: "name", ariaLabel: context.text("app:name") });
  const range = element("input", { name: "range", ariaLabel: context.text("app:range"), placeholder: "192.168.1.0/24" });
  const form = element("form", { className: "grant" }, kind, name, range,
    element("button", { type: "submit" }, context.text("app:grant")));
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    changed("grant", { app: app.id, kind: kind.value, name: kind.value === "everyone" ? "" : name.value, range: range.value });
  });
  return form;
}

function grantItem(context, app, grant, changed) {
  const button = element("button", { type: "button" }, context.text("app:revoke"));
  button.addEventListener("click", () => changed("revoke", { app: app.id, ...grant }));
  const who = [context.text(`app:${grant.kind}`), grant.name, grant.range].filter(Boolean).join(" ");
  return element("li", {}, `${who} `, button);
}

application("VEMO.AppPrivileges", async function start(root, context) {
  const { content, say, fail } = frame(root, context);
  const changed = async (action, fields) => {
    const answer = await call("apps", action, fields);
    if (!answer.success) return fail(answer);
    await draw();
    say(context.text("common:applied"));
  };
  const draw = async () => {
    const answer = await call("apps", "list");
    if (!answer.success) return fail(answer);
    content.replaceChildren(...answer.data.map((app) => element("section", { className: "application" },
      element("h3", {}, context.title(app)),
      element("ul", {}, ...app.grants.map((grant) => grantItem(context, app, grant, changed))),
      grantForm(context, app, changed))));
  };
  await draw();
});
