// The chat and the show's comments. What others wrote is put into the page as text, never as markup.

const LINES_KEPT = 500;
const NAME_LENGTH = 100;
const TEXT_LENGTH = 4000;

/**
 * Lines in a "log" element, each shown once however often its uuid comes, and each with a favourite
 * mark that everybody in the room shares.
 */
export class Talk {
  #log;
  #sendMark;
  #lines = new Map();
  #marks = new Map();

  /** `sendMark({ uuid, state })` sends a mark, "yes" or "no", to the room; true when it could. */
  constructor(log, sendMark) {
    this.#log = log;
    this.#sendMark = sendMark;
  }

  /** Shows a line, `{ name, text, uuid }` of unknown shape. The reader stays where they have scrolled to. */
  receive(data, mine = false) {
    const line = readLine(data);
    if (!line || this.#lines.has(line.uuid)) return;
    const log = this.#log;
    log.querySelector(".empty")?.remove();
    const atEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 40;
    const shown = this.#draw(line);
    shown.classList.toggle("mine", mine);
    log.append(shown);
    remember(this.#lines, line.uuid, shown)?.remove();
    if (atEnd) log.scrollTop = log.scrollHeight;
  }

  /** A mark may come before its line. */
  receiveMark({ uuid, state }) {
    if (typeof uuid !== "string" || typeof state !== "string") return;
    remember(this.#marks, uuid, state);
    const star = this.#lines.get(uuid)?.querySelector(".star");
    if (star) draw(star, state);
  }

  #draw({ name, text, uuid }) {
    const now = new Date();
    const time = element("time", "when", now.toLocaleTimeString([], { hour: "2-digit", minute: "2-digit" }));
    time.dateTime = now.toISOString();
    const star = element("button", "star");
    star.type = "button";
    star.setAttribute("aria-label", `Favourite: ${name}, ${text.slice(0, 60)}`);
    star.addEventListener("click", () => {
      const state = isSet(star) ? "no" : "yes";
      if (this.#sendMark({ uuid, state })) draw(star, state);
    });
    draw(star, this.#marks.get(uuid) ?? "no");
    const shown = element("article", "said");
    shown.dataset.uuid = uuid;
    shown.append(element("strong", "who", name), time, star, element("p", "what", text));
    return shown;
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

const isSet = (star) => star.getAttribute("aria-pressed") === "true";

function draw(star, state) {
  star.setAttribute("aria-pressed", String(state === "yes"));
  star.textContent = state === "yes" ? "★" : "☆";
}

// Keeps the newest; returns the value that had to go, if any.
function remember(map, key, value) {
  map.set(key, value);
  if (map.size <= LINES_KEPT) return undefined;
  const [oldest, its] = map.entries().next().value;
  map.delete(oldest);
  return its;
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
