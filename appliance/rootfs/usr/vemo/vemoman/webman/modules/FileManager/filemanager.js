// Files in shares and in the user's home.
import { application, call, element, frame, upload } from "/webman/modules/Utils/utils.js";

const PAGE = 200;

function sizeOf(bytes) {
  const units = ["B", "KiB", "MiB", "GiB", "TiB"];
  let unit = 0;
  let value = bytes;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return `${value.toFixed(unit ? 1 : 0)} ${units[unit]}`;
}

const addressOf = (path) => `/webman/files.cgi?${new URLSearchParams({ action: "load", path })}`;

class FileManager {
  constructor(context, parts) {
    Object.assign(this, parts, { context, path: "", offset: 0 });
  }

  text(name, ...values) {
    return this.context.text(`app:${name}`, ...values);
  }

  button(name, action, label = this.text(name)) {
    const made = element("button", { type: "button", className: name, ariaLabel: label }, this.text(name));
    made.addEventListener("click", action);
    return made;
  }

  async ask(action, fields) {
    const answer = await call("files", action, fields);
    if (!answer.success) this.fail(answer);
    return answer.success ? answer.data : null;
  }

  async change(action, fields) {
    if (await this.ask(action, fields)) await this.show(this.path, this.offset);
  }

  /** The way from the list of shares to where we are; each step leads back there. */
  crumbs() {
    const steps = this.path.split("/").filter(Boolean);
    const items = [this.button("shares", () => this.show(""))];
    steps.forEach((step, index) => {
      const path = `/${steps.slice(0, index + 1).join("/")}`;
      const made = element("button", { type: "button" }, step);
      made.addEventListener("click", () => this.show(path));
      items.push(made);
    });
    return element("nav", { className: "crumbs", ariaLabel: this.text("place") }, ...items);
  }

  nameOf(entry) {
    const path = `${this.path}/${entry.name}`;
    if (entry.type === "file") {
      return element("a", { href: addressOf(path), download: entry.name }, entry.name);
    }
    if (entry.type !== "folder") return element("span", {}, entry.name);
    const made = element("button", { type: "button", className: "folder" }, entry.name);
    made.addEventListener("click", () => this.show(path));
    return made;
  }

  row(entry) {
    const path = `${this.path}/${entry.name}`;
    const rename = () => {
      const name = prompt(this.text("new_name"), entry.name);
      if (name && name !== entry.name) this.change("rename", { path, name });
    };
    const remove = () => {
      if (!confirm(this.text("really", entry.name))) return;
      this.change("delete", { path, recursive: entry.type === "folder" ? "yes" : "no" });
    };
    return element("tr", {},
      element("td", {}, this.nameOf(entry)),
      element("td", {}, entry.type === "file" ? sizeOf(entry.size) : ""),
      element("td", {}, new Date(entry.mtime * 1000).toLocaleString()),
      element("td", { className: "actions" },
        this.button("rename", rename, `${this.text("rename")} ${entry.name}`),
        this.button("delete", remove, `${this.text("delete")} ${entry.name}`)));
  }

  table(listing) {
    const head = ["name", "size", "changed", "actions"].map((name) => element("th", {}, this.text(name)));
    return element("table", { className: "files" }, element("tr", {}, ...head),
      ...listing.entries.map((entry) => this.row(entry)));
  }

  pages(listing) {
    const made = element("p", { className: "pages" },
      this.text("shown", listing.entries.length ? listing.offset + 1 : 0, listing.offset + listing.entries.length,
        listing.total));
    if (listing.offset > 0) made.append(this.button("before", () => this.show(this.path, listing.offset - PAGE)));
    if (listing.offset + listing.entries.length < listing.total) {
      made.append(this.button("after", () => this.show(this.path, listing.offset + PAGE)));
    }
    return made;
  }

  tools() {
    const create = this.button("create", () => {
      const name = prompt(this.text("new_folder"));
      if (name) this.change("create", { path: `${this.path}/${name}` });
    });
    const chosen = element("input", { type: "file", multiple: true, id: "chosen-files" });
    const progress = element("progress", { max: 1, value: 0, hidden: true, ariaLabel: this.text("upload") });
    chosen.addEventListener("change", async () => {
      progress.hidden = false;
      for (const file of chosen.files) {
        const answer = await upload(file, this.path, (part) => { progress.value = part; });
        if (!answer.success) {
          progress.hidden = true;
          return this.fail(answer);
        }
      }
      await this.show(this.path, this.offset);
      this.say(this.text("uploaded"));
    });
    return element("p", { className: "tools" }, create,
      element("label", { className: "upload" }, this.text("upload"), chosen), progress);
  }

  async show(path, offset = 0) {
    const listing = path ? await this.ask("list", { path, offset, limit: PAGE }) : await this.ask("list", {});
    if (!listing) return;
    this.path = path;
    this.offset = offset;
    this.say("");
    if (!path) {
      const shares = listing.map((share) => this.nameOf({ name: share.name, type: "folder" }));
      this.content.replaceChildren(element("ul", { className: "shares" }, ...shares.map((share) => element("li", {}, share))));
      return;
    }
    this.content.replaceChildren(this.crumbs(), this.tools(), this.table(listing), this.pages(listing));
  }
}

application("VEMO.FileManager", async (root, context) => {
  const manager = new FileManager(context, frame(root, context));
  await manager.show("");
});
