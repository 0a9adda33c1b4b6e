// The streams of a VideoRoom: what this page sends into it and what it receives from it.

import { Pulse, countPackets } from "./flow.js";
import { Peer } from "./peer.js";

/** A stream of this page's, on a handle that has joined the room and was given the stream's id. */
export class Publisher extends Peer {
  published = false;

  #transceivers = [];
  #pulses = { audio: new Pulse(), video: new Pulse() };
  #describe;
  #told = new Map(); // each track's description, by its mid
  #telling = false;

  constructor(handle, iceServers, id) {
    super(handle, iceServers);
    this.id = id;
  }

  /** Sends the stream's tracks. What the room is told of each is what `describe(track)` says at that time. */
  async publish(stream, describe) {
    this.#describe = describe;
    this.#transceivers = stream
      .getTracks()
      .map((track) => this.connection.addTransceiver(track, { direction: "sendonly", streams: [stream] }));
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
    const transceiver = this.#transceiver(track.kind);
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
      const transceiver = this.#transceiver(kind);
      const beats = connected && this.#pulses[kind].beats(sent[kind]);
      if (this.published && transceiver && isRefused(transceiver)) return "refused";
      return beats || !this.published ? "sent" : "stuck";
    };
    return { audio: of("audio"), video: of("video") };
  }

  #transceiver(kind) {
    return this.#transceivers.find(({ sender }) => sender.track?.kind === kind);
  }

  #describeNew() {
    const news = this.#transceivers
      .filter(({ mid, sender }) => mid !== null && sender.track)
      .map(({ mid, sender }) => ({ mid, description: this.#describe(sender.track) }))
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

  #peer = null;
  #closed = false;

  constructor(feed) {
    this.feed = feed;
  }

  /** Resolves when the server has been told to send. */
  async open(session, { room, token, iceServers }) {
    const handle = await session.attach("videoroom");
    this.#peer = new Peer(handle, iceServers);
    if (this.#closed) return this.#peer.close();
    this.#peer.onfailed = () => this.onfailed();
    this.#peer.connection.ontrack = ({ track }) => this.stream.addTrack(track);
    // A stream that ends is torn down, not negotiated once more.
    const stream = { ptype: "subscriber", autoupdate: false, streams: [{ feed: this.feed }] };
    const body = { request: "join", room, token, ...stream };
    await this.#start((await handle.request(body)).jsep);
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
