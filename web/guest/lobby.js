// The studio's lobby, over a WebSocket: it gives the guest a seat, and tells what goes on around it.

import { parse } from "./signals.js";

const PROTOCOL = "zarvo-lobby";
const ANSWER_TIME = 10_000;
const PAUSES = [300, 1_000, 2_000, 4_000, 8_000];
const BUSY_PAUSE = 10_000; // after which a seat of one's own is asked for again
const STATE_PAUSE = 200;
const ATTEMPTS = 3; // of a first request, before the guest hears that it failed

/**
 * One guest at the lobby. A connection that is lost is made anew, for ever once there was a seat. To `on` is
 * told:
 *   seat(seat)          the guest's own seat, `{ key, number, name, room, token, server, iceServers }`: at
 *                       first, when its room is another one, and with each new connection
 *   program(access)     where the show's picture is, `{ room, pin, feed }`, or null
 *   recording(boolean)  whether the show is being recorded
 *   alone(boolean)      whether the host hears this guest and nobody else
 *   removed()           the seat has been taken away; nothing more is told
 *   refused(reason)     likewise: there is no seat; "unreachable" when there is no lobby
 */
export class Lobby {
  #url;
  #on;
  #request = null; // with which each connection begins
  #patient = false;
  #socket = null;
  #seated = false; // this connection has the seat
  #failures = 0;
  #timer = 0;
  #state = {};
  #told = {};
  #stateTimer = 0;

  constructor(url, on) {
    this.#url = url;
    this.#on = on;
  }

  /** Asks for a seat for a guest of that name. */
  ask(invite, name) {
    this.#begin({ ask: { invite, name } });
  }

  /** Asks for the seat that this key is of. */
  comeBack(key) {
    this.#patient = true;
    this.#begin({ return: { key } });
  }

  /** Tells the host of the page: any of "hidden", "echo" (booleans), "camera" and "microphone" (words). */
  tell(state) {
    this.#state = { ...this.#state, ...state };
    this.#stateTimer ||= setTimeout(() => this.#tellState(), STATE_PAUSE);
  }

  /** Gives the seat up, and ends. */
  leave() {
    if (this.#seated) this.#send({ leave: {} });
    this.close();
  }

  /** Ends the connection; nothing more is told. The seat stays for a while. */
  close() {
    this.#request = null;
    clearTimeout(this.#stateTimer);
    this.#drop();
  }

  /** To be called when the network may have changed: a connection that looks whole may lead nowhere. */
  connectAnew() {
    if (this.#request && this.#patient) this.#connect();
  }

  /** To be called when there is no reason to wait any longer. */
  wake() {
    if (this.#request && !this.#socket) this.#connect();
  }

  #begin(request) {
    this.#request = request;
    this.#failures = 0;
    this.#connect();
  }

  #connect() {
    this.#drop();
    const socket = (this.#socket = new WebSocket(this.#url, PROTOCOL));
    const fail = () => this.#fail(socket);
    this.#timer = setTimeout(fail, ANSWER_TIME);
    socket.onopen = () => this.#send(this.#request);
    socket.onclose = fail;
    socket.onmessage = ({ data }) => {
      clearTimeout(this.#timer);
      this.#receive(parse(data));
    };
  }

  #drop() {
    clearTimeout(this.#timer);
    this.#seated = false;
    this.#told = {};
    if (!this.#socket) return;
    this.#socket.onopen = this.#socket.onclose = this.#socket.onmessage = null;
    this.#socket.close();
    this.#socket = null;
  }

  #fail(socket) {
    if (socket !== this.#socket) return;
    this.#drop();
    this.#failures++;
    if (!this.#patient && this.#failures >= ATTEMPTS) return this.#refuse("unreachable");
    this.#again(PAUSES[Math.min(this.#failures, PAUSES.length) - 1]);
  }

  // Not all pages at the same moment, when the studio has come back.
  #again(pause) {
    this.#timer = setTimeout(() => this.#connect(), pause * (0.75 + 0.5 * Math.random()));
  }

  #receive(message) {
    if (isObject(message.seat)) {
      this.#failures = 0;
      this.#patient = true;
      this.#seated = true;
      this.#request = { return: { key: message.seat.key } };
      this.#tellState();
      this.#on.seat(message.seat);
    } else if (isObject(message.refused)) {
      const { reason, retry } = message.refused;
      if (this.#patient && reason === "rate") {
        this.#drop();
        this.#again(retry > 0 ? retry * 1_000 : BUSY_PAUSE);
      } else {
        this.#refuse(String(reason));
      }
    } else if (isObject(message.removed)) {
      this.close();
      this.#on.removed();
    } else if ("program" in message) {
      this.#on.program(readProgram(message.program));
    } else if (typeof message.recording === "boolean") {
      this.#on.recording(message.recording);
    } else if (typeof message.alone === "boolean") {
      this.#on.alone(message.alone);
    }
  }

  #refuse(reason) {
    this.close();
    this.#on.refused(reason);
  }

  #tellState() {
    clearTimeout(this.#stateTimer);
    this.#stateTimer = 0;
    if (!this.#seated) return;
    const news = Object.entries(this.#state).filter(([key, value]) => this.#told[key] !== value);
    if (news.length === 0) return;
    this.#told = { ...this.#state };
    this.#send({ state: Object.fromEntries(news) });
  }

  #send(message) {
    if (this.#socket?.readyState === WebSocket.OPEN) this.#socket.send(JSON.stringify(message));
  }
}

const isObject = (value) => value !== null && typeof value === "object";

function readProgram(program) {
  if (!isObject(program)) return null;
  const { room, pin, feed } = program;
  return { room, pin, feed: feed ?? null };
}

/** Why there is no seat, in words for the guest. */
export function explainRefusal(reason) {
  switch (reason) {
    case "full":
      return "The show is full; try again in a moment.";
    case "busy":
      return "Many guests are ringing at the moment; try again in a moment.";
    case "rate":
      return "You have rung too often; try again in a minute.";
    case "invitation":
      return "This invitation is not valid, or not any more. Ask the host for a new link.";
    case "taken":
      return "The guest whom this invitation is for is here already. Ask the host for a link of your own.";
    case "name":
      return "Please give a name that can be read.";
    case "seat":
      return "Your place in the show was given up meanwhile. Please ring again.";
    case "elsewhere":
      return "You have opened the show in another window. Go on there, or ring here again.";
    case "closed":
      return "The show is over, or has not begun. Ask the host.";
    case "unreachable":
      return "The show cannot be reached. Check your network and try again.";
    default:
      return `The show could not be entered (${reason.slice(0, 40)}).`;
  }
}
