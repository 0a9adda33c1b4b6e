// The chat and the show's comments. What others wrote is put into the page as text, never as markup.

const LINES_KEPT = 500;
const NAME_LENGTH = 100;
const TEXT_LENGTH = 4000;

/** A list of lines in a "log" element, each known by its uuid. */
class Log {
  #element;
  #lines = new Map();

  constructor(element) {
    this.#element = element;
  }

  get(uuid) {
    return this.#lines.get(uuid);
  }

  /** Adds a line at the end and resolves to its element; the reader stays where they have scrolled to. */
  add({ name, text, uuid }) {
    const log = this.#element;
    log.querySelector(".empty")?.remove();
    const atEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 40;
    const line = element("article", "said");
    const now = new Date();
    const time = element("time", "when", now.toLocaleTimeString([], { hour: "2-digit", minute: "2-digit" }));
    time.dateTime = now.toISOString();
    line.append(element("strong", "who", name), time, element("p", "what", text));
    line.dataset.uuid = uuid;
    log.append(line);
    this.#lines.set(uuid, line);
    if (this.#lines.size > LINES_KEPT) {
      const [oldest, its] = this.#lines.entries().next().value;
      this.#lines.delete(oldest);
      its.remove();
    }
    if (atEnd) log.scrollTop = log.scrollHeight;
    return line;
  }
}

/** Chat both ways. A line is shown once, however often its uuid comes back. */
export class Chat {
  #log;

  /** `send(line)` sends `{ name, text, uuid }` to the room and is true when it could. */
  constructor(logElement, form, { send, name }) {
    this.#log = new Log(logElement);
    const input = form.querySelector("input");
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      const text = input.value.trim();
      if (!text) return;
      const line = { name: name(), text, uuid: crypto.randomUUID().toUpperCase() };
      const sent = send(line);
      input.setCustomValidity(sent ? "" : "Not sent: the connection is lost.");
      if (sent) {
        input.value = "";
        this.#log.add(line).classList.add("mine");
      }
      form.reportValidity();
    });
    input.addEventListener("input", () => input.setCustomValidity(""));
  }

  receive(data) {
    const line = readLine(data);
    if (line && !this.#log.get(line.uuid)) this.#log.add(line);
  }
}

/** The show's comments, each with a favourite mark that everybody in the room shares. */
export class Comments {
  #log;
  #send;
  #marks = new Map();

  /** `send(mark)` sends `{ uuid, state }`, the state being "yes" or "no". */
  constructor(logElement, send) {
    this.#log = new Log(logElement);
    this.#send = send;
  }

  receive(data) {
    const line = readLine(data);
    if (!line || this.#log.get(line.uuid)) return;
    const star = element("button", "star");
    star.type = "button";
    star.addEventListener("click", () => {
      const state = star.getAttribute("aria-pressed") === "true" ? "no" : "yes";
      if (this.#send({ uuid: line.uuid, state })) mark(star, state);
    });
    star.setAttribute("aria-label", `Favourite: ${line.name}, ${line.text.slice(0, 60)}`);
    this.#log.add(line).append(star);
    mark(star, this.#marks.get(line.uuid) ?? "no");
  }

  /** A mark may come before its comment. */
  receiveMark({ uuid, state }) {
    if (typeof uuid !== "string" || typeof state !== "string") return;
    this.#marks.set(uuid, state);
    if (this.#marks.size > LINES_KEPT) this.#marks.delete(this.#marks.keys().next().value);
    const star = this.#log.get(uuid)?.querySelector(".star");
    if (star) mark(star, state);
  }
}

function mark(star, state) {
  star.setAttribute("aria-pressed", String(state === "yes"));
  star.textContent = state === "yes" ? "★" : "☆";
}

function readLine({ name, text, uuid }) {
  if (typeof text !== "string" || !text) return null;
  return {
    name: typeof name === "string" && name ? name.slice(0, NAME_LENGTH) : "Somebody",
    text: text.slice(0, TEXT_LENGTH),
    uuid: typeof uuid === "string" && uuid ? uuid : crypto.randomUUID(),
  };
}

function element(tag, className, text = "") {
  const made = document.createElement(tag);
  made.className = className;
  made.textContent = text;
  return made;
}
