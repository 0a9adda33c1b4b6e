// A media connection between this page and one handle of the server's.

/** Wires a new RTCPeerConnection to the handle: candidates both ways, and the news of its end. */
export class Peer {
  /** Called once when the media have ended other than by `close`. */
  onfailed = () => {};

  constructor(handle, iceServers) {
    this.handle = handle;
    this.connection = new RTCPeerConnection({ iceServers });
    this.connection.onicecandidate = ({ candidate }) => handle.trickle(candidate);
    this.connection.onconnectionstatechange = () => {
      if (this.connection.connectionState === "failed") this.#fail();
    };
    handle.ontrickle = (candidate) => {
      this.connection.addIceCandidate(candidate.completed ? null : candidate).catch(() => {});
    };
    handle.onhangup = () => this.#fail();
  }

  /** Sets the server's offer and resolves with the answer to it. */
  async answer(offer) {
    await this.connection.setRemoteDescription(offer);
    const answer = await this.connection.createAnswer();
    await this.connection.setLocalDescription(answer);
    return { type: "answer", sdp: answer.sdp };
  }

  close() {
    this.onfailed = () => {};
    this.connection.close();
    this.handle.detach();
  }

  #fail() {
    const failed = this.onfailed;
    this.onfailed = () => {};
    failed();
  }
}
