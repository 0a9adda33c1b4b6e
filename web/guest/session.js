// Janus's protocol over one WebSocket: a session, its handles, requests and their answers.
//
// Janus's own browser library would do this too. It is thirty times this module, needs a second
// library beside it, and hides the claiming of a session after a lost network; the page uses five
// verbs of the protocol.

const PROTOCOL = "janus-protocol";
const ANSWER_TIME = 10_000;
const KEEPALIVE_TIME = 5_000;
const FAREWELL_TIME = 5_000;

/** An error that the server answered. `code` is Janus's; 0 when there was no answer at all. */
export class JanusError extends Error {
  constructor(code, reason) {
    super(reason);
    this.code = code;
  }
}

export const NO_SUCH_SESSION = 458;

/** One session with the server. It outlives its WebSocket: `open` again claims it. */
export class Session {
  /** Called once when an open WebSocket has gone or has fallen silent. */
  onlost = () => {};

  #url;
  #protocols;
  #id = 0;
  #socket = null;
  #keepalive = 0;
  #closed = false;
  #handles = new Map();
  #waiting = new Map();

  /** With a seat's key the studio lets the page through to the server; a server of its own asks for none. */
  constructor(url, seatKey = null) {
    this.#url = url;
    this.#protocols = seatKey ? [PROTOCOL, `seat.${seatKey}`] : [PROTOCOL];
  }

  /** Connects, and creates the session or claims the one that there was. Rejects with a JanusError. */
  async open() {
    this.#drop();
    const socket = new WebSocket(this.#url, this.#protocols);
    await new Promise((resolve, reject) => {
      const fail = () => {
        socket.onopen = socket.onclose = null;
        socket.close();
        reject(new JanusError(0, "The server cannot be reached."));
      };
      const timer = setTimeout(fail, ANSWER_TIME);
      socket.onopen = () => (clearTimeout(timer), resolve());
      socket.onclose = () => (clearTimeout(timer), fail());
    });
    if (this.#closed) {
      socket.close();
      throw new JanusError(0, "The session was closed.");
    }
    this.#socket = socket;
    socket.onclose = () => this.#lose(socket);
    socket.onmessage = ({ data }) => this.#receive(JSON.parse(data));
    if (this.#id) await this.request({ janus: "claim" });
    else this.#id = (await this.request({ janus: "create" })).data.id;
    this.#keepalive = setInterval(() => this.check(), KEEPALIVE_TIME);
  }

  /** Asks for a sign of life; a server that gives none in time counts as lost. */
  check() {
    const socket = this.#socket;
    this.request({ janus: "keepalive" }, KEEPALIVE_TIME).catch(() => this.#lose(socket));
  }

  /** Resolves with a new Handle of the plugin. */
  async attach(plugin) {
    const { data } = await this.request({ janus: "attach", plugin: `janus.plugin.${plugin}` });
    const handle = new Handle(this, data.id);
    this.#handles.set(data.id, handle);
    return handle;
  }

  // The server (Janus 1.1) may use what it has freed when a handle or a session goes while a plugin is at
  // work for it. So both go once all is answered that was asked of them, or will not be any more.

  async detach(handle) {
    this.#handles.delete(handle.id);
    if (this.#closed) return;
    await this.#answered(handle.id);
    await this.request({ janus: "detach", handle_id: handle.id }).catch(() => {});
  }

  /**
   * Ends the session at the server and asks nothing more of it. A page that goes away cannot wait for
   * answers: with `now` the server is left to find out by itself if it still owes one.
   */
  async close({ now = false } = {}) {
    if (this.#closed) return;
    this.#closed = true;
    this.#handles.clear();
    clearInterval(this.#keepalive);
    const owes = this.#owed().length > 0;
    if (owes && !now) {
      const patience = new Promise((resolve) => setTimeout(resolve, FAREWELL_TIME));
      await Promise.race([this.#answered(), patience]);
    }
    if (!(owes && now) && this.#id && this.#socket?.readyState === WebSocket.OPEN) {
      this.#socket.send(JSON.stringify({ janus: "destroy", session_id: this.#id, transaction: "bye" }));
    }
    this.#drop();
  }

  /** Resolves with the whole answer. A bare "ack" answers nothing but a trickle and a keepalive. */
  request(message, time = ANSWER_TIME) {
    const transaction = crypto.getRandomValues(new Uint32Array(2)).join("-");
    const answer = new Promise((resolve, reject) => {
      if (this.#closed || this.#socket?.readyState !== WebSocket.OPEN) {
        reject(new JanusError(0, "The connection to the server is lost."));
        return;
      }
      const timer = setTimeout(() => {
        this.#waiting.delete(transaction);
        reject(new JanusError(0, "The server does not answer."));
      }, time);
      const { janus: verb, handle_id: handle } = message;
      this.#waiting.set(transaction, { resolve, reject, timer, verb, handle });
      this.#socket.send(JSON.stringify({ ...message, session_id: this.#id || undefined, transaction }));
    });
    const waiting = this.#waiting.get(transaction);
    if (waiting) waiting.answer = answer;
    return answer;
  }

  // What the server has still to answer, of one handle or of all; a keepalive sets no plugin to work.
  #owed(handle) {
    return [...this.#waiting.values()].filter((each) =>
      handle === undefined ? each.verb !== "keepalive" : each.handle === handle,
    );
  }

  #answered(handle) {
    return Promise.allSettled(this.#owed(handle).map(({ answer }) => answer));
  }

  #receive(message) {
    const waiting = this.#waiting.get(message.transaction);
    if (waiting) {
      if (message.janus === "ack" && waiting.verb === "message") return;
      clearTimeout(waiting.timer);
      this.#waiting.delete(message.transaction);
      const fault = message.janus === "error" ? message.error : faultOf(message.plugindata?.data);
      if (fault) waiting.reject(new JanusError(fault.code, fault.reason));
      else waiting.resolve(message);
    } else if (message.janus === "timeout") {
      this.#lose(this.#socket);
    } else {
      this.#handles.get(message.sender)?.receive(message);
    }
  }

  #lose(socket) {
    if (!socket || socket !== this.#socket) return;
    this.#drop();
    if (!this.#closed) this.onlost();
  }

  // Lets go of the socket; whoever waits for an answer over it is told.
  #drop() {
    clearInterval(this.#keepalive);
    if (this.#socket) {
      this.#socket.onclose = this.#socket.onmessage = null;
      this.#socket.close();
      this.#socket = null;
    }
    for (const { reject, timer } of this.#waiting.values()) {
      clearTimeout(timer);
      reject(new JanusError(0, "The connection to the server is lost."));
    }
    this.#waiting.clear();
  }
}

/** One of a session's connections to a plugin. */
export class Handle {
  /** Called with a plugin event that answers no request, and the session description beside it. */
  onevent = () => {};
  /** Called with a candidate of the server's. */
  ontrickle = () => {};
  /** Called with the reason when the server has ended this handle's media. */
  onhangup = () => {};

  #session;

  constructor(session, id) {
    this.#session = session;
    this.id = id;
  }

  /** Resolves with `{ data, jsep }` of the plugin's answer; rejects with a JanusError. */
  async request(body, jsep) {
    const answer = await this.#session.request({ janus: "message", handle_id: this.id, body, jsep });
    return { data: answer.plugindata.data, jsep: answer.jsep };
  }

  trickle(candidate) {
    const message = { janus: "trickle", handle_id: this.id, candidate: candidate ?? { completed: true } };
    // A candidate that is lost with the socket is gathered anew by the restart that follows.
    this.#session.request(message).catch(() => {});
  }

  detach() {
    this.#session.detach(this);
  }

  receive(message) {
    if (message.janus === "event") this.onevent(message.plugindata.data, message.jsep);
    else if (message.janus === "trickle") this.ontrickle(message.candidate);
    else if (message.janus === "hangup" || message.janus === "detached") this.onhangup(message.reason);
  }
}

// VideoRoom puts "error_code" into its answers, TextRoom likewise.
function faultOf(data) {
  return data?.error_code ? { code: data.error_code, reason: data.error } : null;
}
