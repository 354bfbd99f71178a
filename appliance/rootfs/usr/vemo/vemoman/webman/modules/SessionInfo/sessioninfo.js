// Who is logged in, and what this appliance is.
import { application, element, frame } from "/webman/modules/Utils/utils.js";

application("VEMO.SessionInfo", async (root, context) => {
  const { content, fail } = frame(root, context);
  const answer = await (await fetch("/webman/session.cgi")).json();
  if (!answer.success) return fail(answer);
  const rows = Object.entries(answer.data)
    .filter(([name]) => name !== "token")
    .map(([name, value]) => element("tr", {}, element("th", {}, name), element("td", {}, String(value))));
  content.append(element("table", { className: "session" }, ...rows));
});
