// Whether media move: a connection that looks whole may carry nothing, so what goes over it is counted.

const PATIENCE = 3_000;

/** The packets that a connection has sent of each kind, and received of all: `{ audio, video, received }`. */
export async function countPackets(connection) {
  const counted = { audio: 0, video: 0, received: 0 };
  for (const { type, kind, packetsSent, packetsReceived } of (await connection.getStats()).values()) {
    if (type === "outbound-rtp") counted[kind] += packetsSent;
    else if (type === "inbound-rtp") counted.received += packetsReceived;
  }
  return counted;
}

/** A count that is looked at now and then, and whether it still changes. */
export class Pulse {
  #count = 0;
  #changed;

  /** Times are in milliseconds, on whichever clock. A pulse has three seconds for its first beat. */
  constructor(now = performance.now()) {
    this.#changed = now;
  }

  /** True while the count has changed within the last three seconds. */
  beats(count, now = performance.now()) {
    if (count > 0 && count !== this.#count) {
      this.#count = count;
      this.#changed = now;
    }
    return now - this.#changed < PATIENCE;
  }

  /** Whether there has been anything to count. */
  get begun() {
    return this.#count > 0;
  }
}
