// The rules of the Content-Security-Policy, and what browsers make of them.
import { application, call, element, frame } from "/webman/modules/Utils/utils.js";

function rulesTable(context, documents) {
  const head = ["name", "state", "problems"].map((name) => element("th", {}, context.text(`app:${name}`)));
  const rows = documents.map((rule) => element("tr", {},
    element("td", {}, rule.name),
    element("td", {}, context.text(rule.good ? "app:good" : "app:bad")),
    element("td", {}, rule.problems.map((problem) => `${problem.path}: ${problem.text}`).join("\n"))));
  return element("table", { className: "policy" }, element("tr", {}, ...head), ...rows);
}

application("VEMO.ContentPolicy", async (root, context) => {
  const { content, fail } = frame(root, context);
  const list = await call("csp", "list");
  const policy = await call("csp", "load");
  if (!list.success || !policy.success) return fail(list.success ? policy : list);
  content.append(rulesTable(context, list.data),
    element("h3", {}, context.text("app:policy")),
    element("pre", { className: "policy" }, policy.data.header.replaceAll("; ", ";\n")));
});
