// The link that brought the guest here, and where the session's server is.

/**
 * Reads `#invite=...`, with which the lobby gives a seat, or `#room=...&token=...`, which is a room itself:
 * behind the number sign neither reaches a server's log. The same words are understood behind a question
 * mark. Null when something is missing.
 */
export function readLink({ hash, search }) {
  const words = new URLSearchParams(hash.slice(1) || search.slice(1));
  const invite = words.get("invite");
  if (invite) return { invite };
  const room = words.get("room");
  const token = words.get("token");
  return room && token ? { room, token } : null;
}

/** Asks the page's own server for `config.json`; resolves with `{ url, iceServers }`. */
export async function readConfig(location) {
  const answer = await fetch(new URL("config.json", location.href), { cache: "no-store" });
  if (!answer.ok) throw new Error(`config.json: ${answer.status}`);
  const { server, iceServers = [] } = await answer.json();
  return { url: socketUrl(server, location), iceServers };
}

/** The address of a WebSocket that may be named by a path beside the page. */
export function socketUrl(server, { href }) {
  const url = new URL(server, href);
  if (url.protocol.startsWith("http")) url.protocol = url.protocol === "https:" ? "wss:" : "ws:";
  return url.href;
}

const VIDEOROOM_NO_SUCH_ROOM = 426;
const VIDEOROOM_UNAUTHORIZED = 433;

/** Why the room could not be entered, in words for the guest. */
export function explain(error) {
  switch (error.code) {
    case VIDEOROOM_NO_SUCH_ROOM:
      return "This link leads to a show that is not there, or is over. Ask the host for a new link.";
    case VIDEOROOM_UNAUTHORIZED:
      return "This link is not valid for the show, or not any more. Ask the host for a new link.";
    case 0:
      return "The show cannot be reached. Check your network and try again.";
    default:
      return `The show could not be entered: ${error.message}`;
  }
}
