// A package with a module of its own.
import { application, element, frame } from "/webman/modules/Utils/utils.js";

application("Bulletin.Board", (root, context) => {
  const { content } = frame(root, context);
  const items = ["first", "second", "third"].map((name) => element("li", {}, context.text(`news:${name}`)));
  content.append(element("ul", { className: "bulletin" }, ...items));
});
