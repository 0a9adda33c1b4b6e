// Guests whose pictures cost nothing to make: one encoded stream, which the session server takes for each
// guest's. The requests to the server go by way of a page that speaks its protocol.

import { randomBytes } from "node:crypto";
import { createSocket } from "node:dgram";
import { once } from "node:events";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

import { Pipeline, SHOW_BITRATE, guestsPipeline, showPipeline } from "./pipelines.js";

// By these the server tells a remote publisher's streams apart.
const SSRC = { video: 1000, audio: 1010 };
const PAYLOAD = { video: 96, audio: 111 };
const STREAMS = [
  { type: "video", codec: "vp8", mid: "0", mindex: 0, description: "camera 1280x720" },
  { type: "audio", codec: "opus", mid: "1", mindex: 1, description: "on" },
];

export class Guests {
  #studio;
  #page;
  #pipeline;
  #folder = mkdtempSync(join(tmpdir(), "guests-"));
  #ids = [];
  #forwarders = [];

  /** Resolves when so many guests are in the studio's room. */
  static async come(count, studio, page) {
    const guests = new Guests();
    guests.#studio = studio;
    guests.#page = page;
    await page.evaluate(async () => {
      const { Session } = await import("./session.js");
      const session = new Session(`ws://${location.host}/janus`);
      await session.open();
      const handle = await session.attach("videoroom");
      window.ask = async (body) => (await handle.request(body)).data;
    });
    // Whoever joins from now on is asked to send no more than the bare pipeline does.
    await guests.#ask({ request: "edit", new_bitrate: SHOW_BITRATE });
    const ports = [];
    for (let number = 1; number <= count; number++) {
      const display = `Guest - ${number}`;
      const { id, port } = await guests.#ask({ request: "add_remote_publisher", display, streams: STREAMS });
      guests.#ids.push(id);
      ports.push(port);
    }
    guests.#pipeline = await Pipeline.start(guestsPipeline(ports, SSRC));
    return guests;
  }

  async leave() {
    await this.#pipeline?.end();
    rmSync(this.#folder, { recursive: true, force: true });
  }

  /** The show's pictures, to be read from `socket`. */
  async startShow() {
    const socket = join(this.#folder, "show");
    rmSync(socket, { force: true });
    return Object.assign(await Pipeline.start(showPipeline(socket)), { socket });
  }

  /**
   * Has the server send all streams to ports of this machine, encrypted; resolves with what
   * `barePipeline` wants to know of each.
   */
  async forward() {
    const all = [];
    for (const publisher_id of this.#ids) {
      const key = randomBytes(30);
      const streams = await Promise.all(
        STREAMS.map(async ({ type, mid }) => ({ kind: type, mid, ssrc: SSRC[type], port: await freePort() })),
      );
      const { forwarders } = await this.#ask({
        request: "rtp_forward",
        publisher_id,
        host: "127.0.0.1",
        srtp_suite: 80,
        srtp_crypto: key.toString("base64"),
        streams: streams.map(({ kind, mid, ssrc, port }) => ({ mid, port, ssrc, pt: PAYLOAD[kind] })),
      });
      this.#forwarders.push(...forwarders.map(({ stream_id }) => ({ publisher_id, stream_id })));
      all.push(...streams.map((stream) => ({ ...stream, key: key.toString("hex") })));
    }
    return all;
  }

  async stopForwarding() {
    for (const forwarder of this.#forwarders.splice(0))
      await this.#ask({ request: "stop_rtp_forward", ...forwarder });
  }

  /** Has the page receive and show all guests. */
  async watchIn(page) {
    await page.evaluate(async (ids) => {
      const [{ Session }, { Subscriber }] = await Promise.all(
        ["./session.js", "./streams.js"].map((module) => import(module)),
      );
      const { room, token } = Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
      const session = new Session(`ws://${location.host}/janus`);
      await session.open();
      for (const id of ids) {
        const guest = new Subscriber(id, ["audio", "video"]);
        await guest.open(session, { room, token, iceServers: [] });
        const video = Object.assign(document.createElement("video"), { srcObject: guest.stream, width: 320 });
        document.body.prepend(video);
        await video.play();
      }
    }, this.#ids);
  }

  #ask(request) {
    const { room, secret } = this.#studio;
    return this.#page.evaluate((body) => window.ask(body), { ...request, room, secret });
  }
}

async function freePort() {
  const socket = createSocket("udp4").bind(0, "127.0.0.1");
  await once(socket, "listening");
  const { port } = socket.address();
  socket.close();
  await once(socket, "close");
  return port;
}
