// The streams of a VideoRoom: what this page sends into it and what it receives from it.

import { Pulse, countPackets } from "./flow.js";
import { Peer } from "./peer.js";

/** A stream of this page's, on a handle that has joined the room and was given the stream's id. */
export class Publisher extends Peer {
  published = false;

  #transceivers = new Map(); // by kind
  #pulses = { audio: new Pulse(), video: new Pulse() };
  #describe;
  #told = new Map(); // each track's description, by its mid
  #telling = false;

  constructor(handle, iceServers, id) {
    super(handle, iceServers);
    this.id = id;
  }

  /**
   * Sends the stream's tracks of these kinds; one that is missing may come later. What the room is told of each is
   * what `describe(kind, track)` says at that time, the track being null where there is none.
   */
  async publish(stream, kinds, describe) {
    this.#describe = describe;
    for (const kind of kinds) {
      const track = stream.getTracks().find((each) => each.kind === kind);
      const options = { direction: "sendonly", streams: [stream] };
      this.#transceivers.set(kind, this.connection.addTransceiver(track ?? kind, options));
    }
    await this.#offer("publish", () => this.#describeNew());
    this.published = true;
    await this.describeAgain();
  }

  /** Tells the room what `describe` says differently by now, one request at a time. */
  async describeAgain() {
    if (!this.published || this.#telling) return;
    this.#telling = true;
    try {
      for (let news; (news = this.#describeNew()).length > 0;) {
        await this.handle.request({ request: "configure", descriptions: news });
      }
    } catch {
      this.#told.clear(); // the connection is lost: all is told anew when it is back
    }
    this.#telling = false;
  }

  /** Sends another track of the same kind in place of the one before. */
  async replaceTrack(track) {
    const transceiver = this.#transceivers.get(track.kind);
    if (!transceiver || isRefused(transceiver)) return;
    await transceiver.sender.replaceTrack(track);
    await this.describeAgain();
  }

  /**
   * How sound and pictures are doing on their way into the room, `{ audio, video }`: "sent", "refused" by the
   * room, which takes none of the browser's codecs, or "stuck".
   */
  async delivery() {
    const sent = await countPackets(this.connection);
    const connected = this.connection.connectionState === "connected";
    const of = (kind) => {
      const transceiver = this.#transceivers.get(kind);
      const beats = connected && this.#pulses[kind].beats(sent[kind]);
      if (this.published && transceiver && isRefused(transceiver)) return "refused";
      return beats || !this.published ? "sent" : "stuck";
    };
    return { audio: of("audio"), video: of("video") };
  }

  #describeNew() {
    const news = [...this.#transceivers]
      .filter(([, { mid }]) => mid !== null)
      .map(([kind, { mid, sender }]) => ({ mid, description: this.#describe(kind, sender.track) }))
      .filter(({ mid, description }) => this.#told.get(mid) !== description);
    for (const { mid, description } of news) this.#told.set(mid, description);
    return news;
  }

  /** Looks for new ways through the network, after the old one was lost. */
  restart() {
    return this.#offer("configure", undefined, { iceRestart: true });
  }

  async #offer(request, descriptions, options) {
    const offer = await this.connection.createOffer(options);
    await this.connection.setLocalDescription(offer);
    const { type, sdp } = offer;
    const { jsep } = await this.handle.request({ request, descriptions: descriptions?.() }, { type, sdp });
    await this.connection.setRemoteDescription({ type: jsep.type, sdp: inStereo(jsep.sdp) });
  }
}

// Once the room has answered, whatever it takes is sent.
const isRefused = ({ currentDirection }) => currentDirection !== null && currentDirection !== "sendonly";

// Browsers fold a microphone to mono unless the other side's description asks for both channels.
function inStereo(sdp) {
  const payload = sdp.match(/^a=rtpmap:(\d+) opus\//m)?.[1];
  if (!payload || /^a=fmtp:.*\bstereo=1/m.test(sdp)) return sdp;
  const parameters = new RegExp(`^a=fmtp:${payload} .*$`, "m");
  if (parameters.test(sdp)) return sdp.replace(parameters, "$&;stereo=1");
  return sdp.replace(new RegExp(`^a=rtpmap:${payload} .*$`, "m"), `$&\r\na=fmtp:${payload} stereo=1`);
}

/** Another participant's stream, by the id of its publisher. */
export class Subscriber {
  stream = new MediaStream();
  onfailed = () => {};

  #kinds;
  #peer = null;
  #closed = false;
  #begin;
  #begun = new Promise((resolve) => (this.#begin = resolve));

  /** Takes the tracks of these kinds. */
  constructor(feed, kinds) {
    this.feed = feed;
    this.#kinds = kinds;
  }

  /** Resolves when the server has been told to send. */
  async open(session, { room, token, pin, iceServers }) {
    const handle = await session.attach("videoroom");
    this.#peer = new Peer(handle, iceServers);
    if (this.#closed) return this.#peer.close();
    this.#peer.onfailed = () => this.onfailed();
    this.#peer.connection.ontrack = ({ track }) => {
      if (!this.#kinds.includes(track.kind)) return;
      this.stream.addTrack(track);
      track.onunmute = this.#begin;
    };
    // A stream that ends is torn down, not negotiated once more.
    const stream = { ptype: "subscriber", autoupdate: false, streams: [{ feed: this.feed }] };
    const body = { request: "join", room, token, pin, ...stream };
    await this.#start((await handle.request(body)).jsep);
  }

  /** Resolves when the first packet of any track has come. */
  begun() {
    return this.#begun;
  }

  receiver(kind) {
    return this.#peer?.connection.getReceivers().find(({ track }) => track.kind === kind);
  }

  /** The packets received so far. */
  async received() {
    return this.#peer ? (await countPackets(this.#peer.connection)).received : 0;
  }

  /** Looks for new ways through the network, after the old one was lost. */
  async restart() {
    await this.#start((await this.#peer.handle.request({ request: "configure", restart: true })).jsep);
  }

  close() {
    this.#closed = true;
    this.#peer?.close();
  }

  async #start(offer) {
    await this.#peer.handle.request({ request: "start" }, await this.#peer.answer(offer));
  }
}
