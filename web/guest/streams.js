// The streams of a VideoRoom: what this page sends into it and what it receives from it.

import { Peer } from "./peer.js";

/** A stream of this page's, on a handle that has joined the room and was given the stream's id. */
export class Publisher extends Peer {
  published = false;

  constructor(handle, iceServers, id) {
    super(handle, iceServers);
    this.id = id;
  }

  /** Sends the stream's tracks, each with the description that `describe` gives it. */
  async publish(stream, describe) {
    for (const track of stream.getTracks()) {
      this.connection.addTransceiver(track, { direction: "sendonly", streams: [stream] });
    }
    await this.#offer("publish", () =>
      this.connection
        .getTransceivers()
        .map(({ mid, sender }) => ({ mid, description: describe(sender.track) })),
    );
    this.published = true;
  }

  /** Tells everybody in the room another description of one track. */
  describe(mid, description) {
    this.handle.request({ request: "configure", descriptions: [{ mid, description }] }).catch(() => {});
  }

  transceiver(kind) {
    return this.connection.getTransceivers().find(({ sender }) => sender.track?.kind === kind);
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
