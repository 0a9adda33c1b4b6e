// The guest's place in the session: the camera's stream, the screen's, the show's, and the signals.

import { Pulse } from "./flow.js";
import { Playout } from "./playout.js";
import { Reception } from "./reception.js";
import { NO_SUCH_SESSION, Session } from "./session.js";
import { Signals } from "./signals.js";
import { Publisher } from "./streams.js";

// The studio takes a stream for a guest's by this beginning of its name, and publishes under that name.
const GUEST_PREFIX = "Guest - ";
const SHOW_NAME = "ZarvoLive";

const LOOK_TIME = 1_000;
const RETRY_TIMES = [500, 1_000, 2_000, 4_000];
const RINGS = 3; // how often a first ring is tried before the guest hears that it failed

/**
 * One guest in one room. What happens there is told to `on`:
 *   entered(streamId)        the camera is being published under this id: the guest rings
 *   screenId(streamId|null)  the screen is published, or no longer
 *   show(MediaStream|null)   what the room has of the show has come, or gone: in a seat its sound, else its
 *                            picture, too
 *   program(MediaStream|null) the picture from the program's room likewise
 *   showEnded()              the studio has ended the show's stream
 *   signal(type, data, from) a signal of the room, own ones included, and its sender's id
 *   flows({ audio, video, show })  once a second: how the own sound and pictures are doing, as
 *                            Publisher.delivery tells, and whether the show comes as it should
 *   lost()                   the connection is lost and is being mended
 *   mended()                 the connection is back, and everything is as it was
 *   refused(Error)           the room cannot be entered; a JanusError's code tells why. Whoever has a seat and
 *                            was in waits for the room that the lobby names next
 */
export class Room {
  #link;
  #display;
  #on;
  #session = null;
  #signals = null;
  #camera = null;
  #screen = null;
  #own; // the Reception of the room's own show
  #program = new Reception("video");
  #playout = new Playout();
  #inStep = false;
  #shows = new Set(); // the ids of all streams of that name, in the order in which they came
  #showFeed = null; // the newest of them
  #stream = null;
  #screenStream = null;
  #sends = { audio: true, video: true };
  #watching = false;
  #pulse = new Pulse(); // the show's
  #timer = 0;
  #closed = false;
  #connecting = false;
  #patient = false; // goes on whatever the server says
  #entered = null; // the link with which
  #wake = () => {};

  /** `link` is `{ url, room, token, iceServers }`, and in a seat of the guest's own its `seatKey`. */
  constructor(link, name, on) {
    this.#link = link;
    this.#display = GUEST_PREFIX + name;
    this.#on = on;
    this.#own = link.seatKey ? new Reception("audio") : new Reception("audio", "video");
    this.#own.onstream = (stream) => this.#closed || on.show(stream);
    this.#program.onstream = (stream) => this.#closed || on.program(stream);
  }

  /**
   * Enters the room and rings with the camera's stream. Ends in `on.entered` or `on.refused`. `patient`: the
   * guest has been there before, so that it is tried until it succeeds.
   */
  async enter(stream, { patient = false } = {}) {
    this.#stream = stream;
    this.#patient = patient;
    await this.#connect({ attempts: patient ? Infinity : RINGS });
  }

  /** Goes over to another room with all that the guest sends; the same room is entered once only. */
  async move(link) {
    const { room, token, url } = this.#link;
    if (link.room === room && link.token === token && link.url === url) return;
    this.#link = link;
    this.#wake();
    await this.#mend(false);
  }

  /** Leaves the room; nothing is told any more. `now`: the page itself goes away. */
  close(now = false) {
    this.#closed = true;
    this.#wake();
    this.#screenStream?.getTracks().forEach((track) => track.stop());
    this.#leave(now);
  }

  /** Sends a signal to the whole room; false when it could not be sent. */
  signal(type, data) {
    return this.#signals?.send(type, data) ?? false;
  }

  /** Sends another track of the same kind in place of the camera stream's. */
  async replaceTrack(track) {
    await this.#camera?.replaceTrack(track);
  }

  /** Tells everybody whether this guest has "audio" or "video". Whoever has none also switches the track off. */
  setSends(kind, on) {
    if (this.#sends[kind] === on) return;
    this.#sends[kind] = on;
    this.#camera?.describeAgain();
  }

  /** Whether the show is to be received, as soon and as long as there is one. */
  watch(on) {
    if (this.#watching === on) return;
    this.#watching = on;
    this.#pulse = new Pulse();
    this.#receiveShow();
  }

  /** Where the show's picture is, `{ room, pin, feed }`, or null where it is not in a room of its own. */
  watchProgram(access) {
    this.#program.want(access && { ...access, iceServers: this.#link.iceServers });
  }

  /** Whether sound waits for a picture that comes later; otherwise each is played as early as it can be. */
  setInStep(inStep) {
    this.#inStep = inStep;
  }

  /** Publishes a screen beside the camera, as a second stream of the same guest. */
  async shareScreen(stream) {
    this.#screenStream = stream;
    const screen = await this.#join();
    await this.#publish(screen, stream, "screen");
    if (this.#screenStream !== stream) {
      screen.close();
      return;
    }
    this.#screen = screen;
    screen.onfailed = () => this.stopScreen();
    this.#on.screenId(screen.id);
  }

  stopScreen() {
    if (!this.#screenStream) return;
    this.#screenStream.getTracks().forEach((track) => track.stop());
    this.#screenStream = null;
    this.#screen?.close();
    this.#screen = null;
    if (!this.#closed) this.#on.screenId(null);
  }

  /** To be called when there is reason to think that the network has changed. */
  checkNetwork() {
    this.#wake();
    this.#session?.check();
  }

  async #enter() {
    const link = this.#link;
    this.#session = new Session(link.url, link.seatKey);
    this.#session.onlost = () => this.#mend(true);
    await this.#session.open();
    this.#camera = await this.#join();
    // The signals come before the stream: the host may answer the ring at once.
    this.#signals = new Signals();
    this.#signals.onsignal = (...signal) => this.#on.signal(...signal);
    await this.#signals.open(this.#session, link, this.#camera.id);
    for (const reception of [this.#own, this.#program]) reception.use(this.#session);
    this.#on.entered(this.#camera.id);
    await this.#publish(this.#camera, this.#stream, "camera");
    this.#signals.onfailed = this.#camera.onfailed = () => this.#mend(false);
    // A connection that is being closed need not tell any more.
    this.#timer = setInterval(() => this.#look().catch(() => {}), LOOK_TIME);
    if (this.#screenStream) await this.shareScreen(this.#screenStream);
    this.#entered = link;
    this.#patient ||= Boolean(link.seatKey);
  }

  #leave(now = false) {
    clearInterval(this.#timer);
    this.#entered = null;
    this.#session?.close({ now });
    this.#shows.clear();
    this.#showFeed = null;
    this.#watching = false;
    this.#own.want(null);
    for (const reception of [this.#own, this.#program]) reception.use(null);
    this.#screen?.close();
    this.#signals?.close();
    this.#camera?.close();
    this.#session = this.#signals = this.#camera = this.#screen = null;
  }

  async #join() {
    const { room, token, iceServers } = this.#link;
    const handle = await this.#session.attach("videoroom");
    handle.onevent = (data) => this.#participants(data);
    const body = { request: "join", ptype: "publisher", room, token, display: this.#display };
    const { data } = await handle.request(body);
    this.#participants(data);
    return new Publisher(handle, iceServers, data.id);
  }

  #publish(publisher, stream, source) {
    const sends = (kind, track) => track !== null && (source === "screen" || this.#sends[kind]);
    const kinds = source === "screen" ? ["video"] : ["audio", "video"];
    return publisher.publish(stream, kinds, (kind, track) =>
      kind === "video" ? describeVideo(source, track, sends(kind, track)) : describeAudio(sends(kind, track)),
    );
  }

  // A show that has sent nothing at all yet has no source: the host has none, or has not chosen it yet.
  async #look() {
    const camera = this.#camera;
    const [delivery, received] = await Promise.all([camera?.delivery(), this.#own.received()]);
    if (!delivery || camera !== this.#camera) return;
    const beats = this.#pulse.beats(received);
    const unbegun = this.#showFeed !== null && !this.#pulse.begun;
    this.#on.flows({ ...delivery, show: !this.#watching || beats || unbegun });
    if (!this.#link.seatKey) return; // the browser keeps what comes as one stream in step
    await this.#playout.look(this.#own.receiver("audio"), this.#program.receiver("video"), this.#inStep);
  }

  // ---- The show ------------------------------------------------------------

  // A studio that is gone may stay listed for a while beside the one that took its place.
  #participants({ publishers = [], leaving, unpublished }) {
    for (const { id, display } of publishers) if (display === SHOW_NAME) this.#shows.add(id);
    for (const gone of [leaving, unpublished]) this.#shows.delete(gone);
    const feed = [...this.#shows].at(-1) ?? null;
    if (feed === this.#showFeed) return;
    this.#showFeed = feed;
    this.#pulse = new Pulse();
    this.#receiveShow();
    if (feed === null) this.#on.showEnded();
  }

  #receiveShow() {
    const there = this.#watching && this.#showFeed !== null;
    this.#own.want(there ? { ...this.#link, feed: this.#showFeed } : null);
  }

  // ---- The way in, and in again after a lost network -----------------------

  async #mend(claimable) {
    if (this.#connecting || this.#closed) return;
    this.#on.lost();
    await this.#connect({ claimable });
  }

  // Goes on until the room is entered, refuses, or is left. A session that the server still has is
  // claimed, so that a guest who is on air stays there; otherwise the guest rings anew.
  async #connect({ claimable = false, attempts = Infinity }) {
    this.#connecting = true;
    for (let attempt = 1; !this.#closed; attempt++) {
      try {
        if (claimable && this.#entered === this.#link && (await this.#claim())) {
          this.#on.mended();
        } else {
          claimable = false;
          this.#leave();
          await this.#enter();
        }
        if (this.#entered === this.#link) break; // else it goes on to the room that was named meanwhile
      } catch (error) {
        if (this.#closed) break;
        const forgotten = error.code === NO_SUCH_SESSION;
        if (claimable && forgotten) {
          claimable = false;
        } else if (((error.code && !forgotten) || attempt === attempts) && !this.#patient) {
          this.close();
          this.#on.refused(error);
        } else {
          await this.#pause(RETRY_TIMES[Math.min(attempt, RETRY_TIMES.length) - 1]);
        }
      }
    }
    this.#connecting = false;
  }

  // True when the session is this page's again, its streams are still there, and all of them look for
  // new ways through the network.
  async #claim() {
    if (!this.#signals?.connection || !this.#camera?.published) return false;
    await this.#session.open();
    const { data } = await this.#camera.handle.request({
      request: "listparticipants",
      room: this.#link.room,
    });
    const publishing = data.participants.filter(({ publisher }) => publisher);
    const has = (publisher) => publishing.some(({ id }) => id === publisher.id);
    if (!has(this.#camera) || (this.#screen && !has(this.#screen))) return false;
    await Promise.all([this.#camera, this.#screen, this.#signals].map((each) => each?.restart()));
    for (const each of [this.#camera, this.#screen]) each?.describeAgain();
    for (const reception of [this.#own, this.#program]) reception.restart();
    // What happened to the show meanwhile, nobody has told.
    for (const id of this.#shows) if (!has({ id })) this.#participants({ leaving: id });
    this.#participants({ publishers: publishing });
    return true;
  }

  #pause(time) {
    return new Promise((resolve) => {
      const timer = setTimeout(resolve, time);
      this.#wake = () => (clearTimeout(timer), resolve());
    });
  }
}

function describeVideo(source, track, on) {
  const { width, height } = track?.getSettings() ?? {};
  const size = width && height ? ` ${width}x${height}` : "";
  return source + size + (on ? "" : " off");
}

function describeAudio(on) {
  return on ? "on" : "off";
}
