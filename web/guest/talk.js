// The chat and the show's comments. What others wrote is put into the page as text, never as markup.

import { oncePerFrame } from "./frame.js";
import { Pace } from "./pace.js";
import { parse } from "./signals.js";

const LINES_KEPT = 200;
const MARKS_KEPT = 500;
const UUID_LENGTH = 100;
const NAME_LENGTH = 100;
const TEXT_LENGTH = 4000;

/**
 * Lines in a "log" element, each shown once however often its uuid comes, and each with a favourite
 * mark that everybody in the room shares. Lines that come faster than anybody reads are left out.
 */
export class Talk {
  #log;
  #sendMark;
  #pace = new Pace();
  #lines = new Map(); // by uuid: the elements, those that wait to be shown included
  #marks = new Map();
  #fresh = []; // elements for the next picture
  #changed = new Set(); // uuids whose mark the next picture shows
  #draw = oncePerFrame(() => this.#show());

  /** `sendMark({ uuid, state })` sends a mark, "yes" or "no", to the room; true when it could. */
  constructor(log, sendMark) {
    this.#log = log;
    this.#sendMark = sendMark;
  }

  /** Shows what a sender has sent: JSON text of a line, `{ name, text, uuid }`, of unknown shape. */
  receive(data, sender) {
    const line = readLine(parse(data));
    if (!line || this.#lines.has(line.uuid)) return;
    if (this.#pace.takes(sender)) this.#addLine(line);
    else if (!this.#fresh.at(-1)?.matches(".left-out")) this.#add(leftOut());
  }

  /** Shows what the guest has just written. */
  showOwn(line) {
    this.#addLine(line).classList.add("mine");
  }

  /** Takes a mark, JSON text of unknown shape. It may come before its line. */
  receiveMark(data) {
    const { uuid, state } = parse(data);
    if (!isUuid(uuid) || typeof state !== "string") return;
    this.#marks.delete(uuid);
    this.#marks.set(uuid, state === "yes" ? "yes" : "no");
    if (this.#marks.size > MARKS_KEPT) this.#marks.delete(this.#marks.keys().next().value);
    if (!this.#lines.has(uuid)) return;
    this.#changed.add(uuid);
    this.#draw();
  }

  #addLine(line) {
    const made = this.#make(line);
    this.#lines.set(line.uuid, made);
    this.#add(made);
    return made;
  }

  #add(element) {
    this.#fresh.push(element);
    this.#draw();
  }

  // The reader stays where they have scrolled to.
  #show() {
    const log = this.#log;
    const atEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 40;
    if (this.#fresh.length) log.querySelector(".empty")?.remove();
    for (const element of this.#fresh) {
      const again = element.matches(".left-out") && log.lastElementChild?.matches(".left-out");
      if (!again) log.append(element);
    }
    while (log.childElementCount > LINES_KEPT) {
      this.#lines.delete(log.firstElementChild.dataset.uuid);
      log.firstElementChild.remove();
    }
    for (const uuid of this.#changed) {
      const star = this.#lines.get(uuid)?.querySelector(".star");
      if (star) mark(star, this.#marks.get(uuid));
    }
    if (atEnd && this.#fresh.length) log.scrollTop = log.scrollHeight;
    this.#fresh = [];
    this.#changed.clear();
  }

  #make({ name, text, uuid }) {
    const now = new Date();
    const time = element("time", "when", now.toLocaleTimeString([], { hour: "2-digit", minute: "2-digit" }));
    time.dateTime = now.toISOString();
    const star = element("button", "star");
    star.type = "button";
    star.setAttribute("aria-label", `Favourite: ${name}, ${text.slice(0, 60)}`);
    star.addEventListener("click", () => {
      const state = isSet(star) ? "no" : "yes";
      if (this.#sendMark({ uuid, state })) mark(star, state);
    });
    mark(star, this.#marks.get(uuid) ?? "no");
    const made = element("article", "said");
    made.dataset.uuid = uuid;
    made.append(element("strong", "who", name), time, star, element("p", "what", text));
    return made;
  }
}

/** Has the form send what is typed: `send(text)` is true when it could. */
export function sendLines(form, send) {
  const input = form.querySelector("input");
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    const text = input.value.trim();
    if (!text) return;
    if (send(text)) {
      input.value = "";
    } else {
      input.setCustomValidity("Not sent: the connection is lost.");
      input.reportValidity();
    }
  });
  input.addEventListener("input", () => input.setCustomValidity(""));
}

const isUuid = (uuid) => typeof uuid === "string" && uuid.length > 0 && uuid.length <= UUID_LENGTH;
const isSet = (star) => star.getAttribute("aria-pressed") === "true";

function mark(star, state) {
  star.setAttribute("aria-pressed", String(state === "yes"));
  star.textContent = state === "yes" ? "★" : "☆";
}

const leftOut = () => element("p", "left-out", "Lines came faster than anybody reads: some are left out.");

function readLine({ name, text, uuid }) {
  if (typeof text !== "string" || !text) return null;
  return {
    name: typeof name === "string" && name ? name.slice(0, NAME_LENGTH) : "Somebody",
    text: text.slice(0, TEXT_LENGTH),
    uuid: isUuid(uuid) ? uuid : crypto.randomUUID(),
  };
}

function element(tag, className, text = "") {
  const made = document.createElement(tag);
  made.className = className;
  made.textContent = text;
  return made;
}
