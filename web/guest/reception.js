// One stream of somebody else's, received while it is wanted, and anew where it fails or is replaced.

import { Subscriber } from "./streams.js";

const AGAIN_TIME = 1_000;

/**
 * What was received last is shown until something newer comes: a picture that is being restored does not turn
 * black meanwhile.
 */
export class Reception {
  /** Called with the MediaStream that is to be played from now on, or null for none. */
  onstream = () => {};

  #kinds;
  #session = null;
  #source = null;
  #current = null; // a Subscriber
  #next = null; // one that takes its place as soon as it has something
  #notBefore = 0;
  #timer = 0;

  /** `kinds` are those of the tracks that are taken. */
  constructor(...kinds) {
    this.#kinds = kinds;
  }

  /** From now on over this session; null while there is none. */
  use(session) {
    if (session === this.#session) return;
    this.#end();
    this.#session = session;
    this.#soon();
  }

  /**
   * What to receive, `{ room, feed, token, pin, iceServers }`, or null. With a feed of null the stream is
   * away for a moment. Where only the way in has changed, what runs goes on.
   */
  want(source) {
    this.#source = source;
    if (source) this.#soon();
    else this.#end();
  }

  /** Looks for new ways through the network, after the old one was lost. */
  restart() {
    const subscriber = this.#current;
    subscriber?.restart().catch(() => this.#fail(subscriber));
  }

  /** The packets received so far of the present stream. */
  async received() {
    return (await this.#current?.received()) ?? 0;
  }

  /** What receives the track of that kind; undefined if nothing does. */
  receiver(kind) {
    return this.#current?.receiver(kind);
  }

  get #feed() {
    return (this.#next ?? this.#current)?.feed;
  }

  // At most once a second, whatever others in the room are up to.
  #soon() {
    clearTimeout(this.#timer);
    const time = Math.max(0, this.#notBefore - performance.now());
    this.#timer = setTimeout(() => this.#open(), time);
  }

  async #open() {
    const feed = this.#source?.feed ?? null;
    if (!this.#session || feed === null || feed === this.#feed) return;
    this.#notBefore = performance.now() + AGAIN_TIME;
    this.#next?.close();
    const fresh = (this.#next = new Subscriber(feed, this.#kinds));
    fresh.onfailed = () => this.#fail(fresh);
    try {
      await fresh.open(this.#session, this.#source);
      if (this.#current) await fresh.begun();
    } catch {
      return this.#fail(fresh);
    }
    if (this.#next !== fresh) return;
    this.#current?.close();
    this.#current = fresh;
    this.#next = null;
    this.onstream(fresh.stream);
  }

  // The stream may well go on; only this page's connection to it has failed.
  #fail(subscriber) {
    if (subscriber === this.#next) this.#next = null;
    else if (subscriber !== this.#current) return;
    subscriber.close();
    subscriber.feed = null; // to be had anew
    this.#soon();
  }

  #end() {
    clearTimeout(this.#timer);
    const received = this.#current;
    this.#current?.close();
    this.#next?.close();
    this.#current = this.#next = null;
    if (received) this.onstream(null);
  }
}
