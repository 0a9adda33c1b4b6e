// What the studio may change of the page while the show runs.

const COLOUR = /^#[0-9a-f]{6}$/i;

/**
 * Reads the studio's text: a JSON object with any of "title" and "notice" (strings) and "accent"
 * ("#rrggbb"). Returns those that it holds and that are of their kind; whatever else is ignored.
 */
export function readPreferences({ title, notice, accent }) {
  const read = {};
  if (typeof title === "string") read.title = title.slice(0, 120);
  if (typeof notice === "string") read.notice = notice.slice(0, 500);
  if (typeof accent === "string" && COLOUR.test(accent)) read.accent = accent.toLowerCase();
  return read;
}

/** Black or white, whichever reads better on the colour. */
export function readableOn(colour) {
  const [red, green, blue] = [1, 3, 5].map((at) => {
    const value = parseInt(colour.slice(at, at + 2), 16) / 255;
    return value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
  });
  return 0.2126 * red + 0.7152 * green + 0.0722 * blue > 0.179 ? "#000000" : "#ffffff";
}
