// The session's signals: short typed texts that everybody in the room receives, the sender included.
// They travel as TextRoom messages, {"type", "data"}, over a data channel.

import { Peer } from "./peer.js";

const OPEN_TIME = 10_000;

export class Signals {
  /** Called with the type, the data and the sender's id, all strings, of every signal of the room. */
  onsignal = () => {};
  /** Called once when the channel has ended other than by `close`. */
  onfailed = () => {};

  #peer;
  #channel;
  #room;
  #transactions = 0;

  /** Enters the TextRoom; resolves when signals flow. Rejects with a JanusError or an Error. */
  async open(session, { room, token, iceServers }, username) {
    this.#room = room;
    const handle = await session.attach("textroom");
    this.#peer = new Peer(handle, iceServers);
    this.#peer.onfailed = () => this.onfailed();
    const { jsep } = await handle.request({ request: "setup" });
    this.#channel = this.#peer.connection.createDataChannel("JanusDataChannel");
    const answer = await this.#peer.answer(jsep);
    await Promise.all([this.#opened(), handle.request({ request: "ack" }, answer)]);
    await this.#join({ room, token, username });
    this.#channel.onmessage = ({ data }) => this.#receive(data);
  }

  /** Sends one signal, two strings, to the whole room; false when there is no channel to send it over. */
  send(type, data) {
    if (this.#channel?.readyState !== "open") return false;
    this.#post({ textroom: "message", room: this.#room, ack: false, text: JSON.stringify({ type, data }) });
    return true;
  }

  /** Looks for new ways through the network, after the old one was lost. */
  async restart() {
    const { jsep } = await this.#peer.handle.request({ request: "restart" });
    await this.#peer.handle.request({ request: "ack" }, await this.#peer.answer(jsep));
  }

  get connection() {
    return this.#peer?.connection;
  }

  close() {
    this.#peer?.close();
  }

  #post(message) {
    this.#channel.send(JSON.stringify({ ...message, transaction: `t${++this.#transactions}` }));
  }

  #opened() {
    return new Promise((resolve, reject) => {
      const timer = setTimeout(
        () => reject(new Error("No connection for messages could be made.")),
        OPEN_TIME,
      );
      this.#channel.onopen = () => (clearTimeout(timer), resolve());
    });
  }

  #join(who) {
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error("The room does not answer.")), OPEN_TIME);
      this.#channel.onmessage = ({ data }) => {
        const answer = JSON.parse(data);
        if (answer.textroom !== "success" && answer.textroom !== "error") return;
        clearTimeout(timer);
        if (answer.textroom === "success") resolve();
        else reject(new Error(answer.error));
      };
      this.#post({ textroom: "join", ...who });
    });
  }

  #receive(text) {
    const message = parse(text);
    if (message.textroom !== "message" || message.room !== this.#room) return;
    const { type, data } = parse(message.text);
    if (typeof type === "string" && typeof data === "string") this.onsignal(type, data, String(message.from));
  }
}

/** What the JSON text says if it is an object, else an empty one: what others send is never trusted. */
export function parse(text) {
  try {
    const value = JSON.parse(text);
    return value !== null && typeof value === "object" && !Array.isArray(value) ? value : {};
  } catch {
    return {};
  }
}
