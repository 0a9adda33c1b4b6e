// When picture and sound that come on different roads are played.

const MOST = 250; // milliseconds that either waits for the other
const CLOSE = 20; // milliseconds that nobody notices

/**
 * How long each is to wait in its buffer, `{ sound, picture }` in milliseconds, after those that hold now,
 * when the picture waits `late` milliseconds longer than its sound. First whoever waits for the other waits less.
 */
export function nextTargets({ sound, picture }, delays, late) {
  const bounded = (target) => Math.min(MOST, Math.max(0, Math.round(target)));
  if (Math.abs(late) < CLOSE) return { sound, picture };
  if (late > 0) {
    if (picture > 0) return { sound, picture: bounded(picture - late) };
    return { sound: bounded(delays.sound + late), picture };
  }
  if (sound > 0) return { sound: bounded(sound + late), picture };
  return { sound, picture: bounded(delays.picture - late) };
}

/** Plays a sound and a picture that belong together. */
export class Playout {
  #targets = { sound: 0, picture: 0 };
  #sound = new Buffer();
  #picture = new Buffer();

  /**
   * To be called once a second with the two RTCRtpReceivers, either of which may be missing. `inStep`: they
   * are played together, as well as the browser can do it; otherwise each as early as it can be.
   */
  async look(sound, picture, inStep) {
    const delays = { sound: await this.#sound.delay(sound), picture: await this.#picture.delay(picture) };
    const known = delays.sound !== null && delays.picture !== null;
    if (!inStep) this.#targets = { sound: 0, picture: 0 };
    else if (known) this.#targets = nextTargets(this.#targets, delays, delays.picture - delays.sound);
    hold(sound, this.#targets.sound);
    hold(picture, this.#targets.picture);
  }
}

/** One receiver's buffer. */
class Buffer {
  #receiver = null;
  #total = 0;
  #count = 0;

  /** The milliseconds for which what was played since the last call had waited; null if nothing was. */
  async delay(receiver) {
    if (!receiver) return null;
    if (receiver !== this.#receiver) [this.#receiver, this.#total, this.#count] = [receiver, 0, 0];
    for (const stats of (await receiver.getStats()).values()) {
      if (stats.type !== "inbound-rtp") continue;
      const { jitterBufferDelay: total = 0, jitterBufferEmittedCount: count = 0 } = stats;
      const played = count - this.#count;
      const waited = total - this.#total;
      [this.#total, this.#count] = [total, count];
      return played > 0 ? (1_000 * waited) / played : null;
    }
    return null;
  }
}

function hold(receiver, target) {
  if (receiver && "jitterBufferTarget" in receiver && receiver.jitterBufferTarget !== target)
    receiver.jitterBufferTarget = target;
}
