// How much is taken at a time of what others send.

const SENDERS_KEPT = 100;

/** So many at once, and so many a second from then on. */
class Allowance {
  #left;
  #then;

  constructor({ atOnce, aSecond }, now) {
    this.limits = { atOnce, aSecond };
    this.#left = atOnce;
    this.#then = now;
  }

  /** Whether there is one left. */
  has(now) {
    const { atOnce, aSecond } = this.limits;
    this.#left = Math.min(atOnce, this.#left + ((now - this.#then) / 1000) * aSecond);
    this.#then = now;
    return this.#left >= 1;
  }

  take() {
    this.#left--;
  }
}

/**
 * Takes no more than a person reads: of each sender, so that one who floods does not drown the others, and of
 * all together.
 */
export class Pace {
  static EACH = { atOnce: 50, aSecond: 3 };
  static ALL = { atOnce: 60, aSecond: 10 };

  #all = null;
  #each = new Map();

  /** Whether another one of this sender's may be taken; it counts as taken then. `now` is in milliseconds. */
  takes(sender, now = performance.now()) {
    this.#all ??= new Allowance(Pace.ALL, now);
    const its = this.#each.get(sender) ?? new Allowance(Pace.EACH, now);
    this.#each.delete(sender);
    this.#each.set(sender, its); // the one heard last is forgotten last
    if (this.#each.size > SENDERS_KEPT) this.#each.delete(this.#each.keys().next().value);
    if (!its.has(now) || !this.#all.has(now)) return false;
    its.take();
    this.#all.take();
    return true;
  }
}
