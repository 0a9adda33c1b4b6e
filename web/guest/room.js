// The guest's place in the session: the camera's stream, the screen's, the show's, and the signals.

import { Pulse } from "./flow.js";
import { NO_SUCH_SESSION, Session } from "./session.js";
import { Signals } from "./signals.js";
import { Publisher, Subscriber } from "./streams.js";

// The studio takes a stream for a guest's by this beginning of its name, and publishes under that name.
const GUEST_PREFIX = "Guest - ";
const SHOW_NAME = "ZarvoLive";

const LOOK_TIME = 1_000;
const OPEN_AGAIN_TIME = 1_000;
const RETRY_TIMES = [500, 1_000, 2_000, 4_000];
const RINGS = 3; // how often a first ring is tried before the guest hears that it failed

/**
 * One guest in one room. What happens there is told to `on`:
 *   entered(streamId)        the camera is being published under this id: the guest rings
 *   screenId(streamId|null)  the screen is published, or no longer
 *   show(MediaStream|null)   the show's picture and sound have come, or gone
 *   showEnded()              the studio has ended the show's stream
 *   signal(type, data, from) a signal of the room, own ones included, and its sender's id
 *   flows({ audio, video, show })  once a second: how the own sound and pictures are doing, as
 *                            Publisher.delivery tells, and whether the show comes as it should
 *   lost()                   the connection is lost and is being mended
 *   mended()                 the connection is back, and everything is as it was
 *   refused(Error)           the room cannot be entered; a JanusError's code tells why
 */
export class Room {
  #link;
  #display;
  #on;
  #session = null;
  #signals = null;
  #camera = null;
  #screen = null;
  #show = null;
  #shows = new Set(); // the ids of all streams of that name, in the order in which they came
  #showFeed = null; // the newest of them
  #stream = null;
  #screenStream = null;
  #sends = { audio: true, video: true };
  #watching = false;
  #pulse = new Pulse(); // the show's
  #openAfter = 0;
  #openTimer = 0;
  #timer = 0;
  #closed = false;
  #connecting = false;
  #wake = () => {};

  /** `link` is `{ url, room, token, iceServers }`. */
  constructor(link, name, on) {
    this.#link = link;
    this.#display = GUEST_PREFIX + name;
    this.#on = on;
  }

  /** Enters the room and rings with the camera's stream. Ends in `on.entered` or `on.refused`. */
  async enter(stream) {
    this.#stream = stream;
    await this.#connect({ attempts: RINGS });
  }

  /** Leaves the room; nothing is told any more. `now`: the page itself goes away. */
  close(now = false) {
    this.#closed = true;
    this.#wake();
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
    if (on) this.#openSoon();
    else this.#endShow();
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
    this.#session = new Session(this.#link.url);
    this.#session.onlost = () => this.#mend(true);
    await this.#session.open();
    this.#camera = await this.#join();
    // The signals come before the stream: the host may answer the ring at once.
    this.#signals = new Signals();
    this.#signals.onsignal = (...signal) => this.#on.signal(...signal);
    await this.#signals.open(this.#session, this.#link, this.#camera.id);
    this.#on.entered(this.#camera.id);
    await this.#publish(this.#camera, this.#stream, "camera");
    this.#signals.onfailed = this.#camera.onfailed = () => this.#mend(false);
    // A connection that is being closed need not tell any more.
    this.#timer = setInterval(() => this.#look().catch(() => {}), LOOK_TIME);
    if (this.#screenStream) await this.shareScreen(this.#screenStream);
  }

  #leave(now = false) {
    clearInterval(this.#timer);
    this.#session?.close({ now });
    this.#endShow();
    this.#shows.clear();
    this.#showFeed = null;
    this.#watching = false;
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

  #publish(publisher, stream, kind) {
    const sends = (track) => kind === "screen" || this.#sends[track.kind];
    return publisher.publish(stream, (track) =>
      track.kind === "video" ? describeVideo(kind, track, sends(track)) : describeAudio(sends(track)),
    );
  }

  // A show that has sent nothing at all yet has no source: the host has none, or has not chosen it yet.
  async #look() {
    const camera = this.#camera;
    const [delivery, received] = await Promise.all([camera?.delivery(), this.#show?.received()]);
    if (!delivery || camera !== this.#camera) return;
    const beats = this.#pulse.beats(received ?? 0);
    const unbegun = this.#showFeed !== null && !this.#pulse.begun;
    this.#on.flows({ ...delivery, show: !this.#watching || beats || unbegun });
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
    if (feed !== null) {
      this.#openSoon();
    } else {
      this.#endShow();
      this.#on.showEnded();
    }
  }

  // At most once a second, whatever others in the room are up to.
  #openSoon() {
    clearTimeout(this.#openTimer);
    const time = Math.max(0, this.#openAfter - performance.now());
    this.#openTimer = setTimeout(() => {
      if (this.#session && this.#watching && this.#showFeed !== null) this.#open(this.#showFeed);
    }, time);
  }

  async #open(feed) {
    if (this.#show?.feed === feed) return;
    this.#endShow();
    this.#openAfter = performance.now() + OPEN_AGAIN_TIME;
    const show = (this.#show = new Subscriber(feed));
    show.onfailed = () => this.#failShow(show);
    try {
      await show.open(this.#session, this.#link);
      if (this.#show === show) this.#on.show(show.stream);
    } catch {
      this.#failShow(show);
    }
  }

  // The show goes on in the room; only this page's connection to it has failed.
  #failShow(show) {
    if (this.#show !== show) return;
    this.#endShow();
    this.#openSoon();
  }

  #endShow() {
    if (!this.#show) return;
    this.#show.close();
    this.#show = null;
    if (!this.#closed) this.#on.show(null);
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
        if (claimable && (await this.#claim())) {
          this.#on.mended();
        } else {
          claimable = false;
          this.#leave();
          await this.#enter();
        }
        break;
      } catch (error) {
        if (this.#closed) break;
        const forgotten = error.code === NO_SUCH_SESSION;
        if (claimable && forgotten) {
          claimable = false;
        } else if ((error.code && !forgotten) || attempt === attempts) {
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
    this.#show?.restart().catch(() => this.#show?.onfailed());
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

function describeVideo(kind, track, on) {
  const { width, height } = track.getSettings();
  const size = width && height ? ` ${width}x${height}` : "";
  return kind + size + (on ? "" : " off");
}

function describeAudio(on) {
  return on ? "on" : "off";
}
