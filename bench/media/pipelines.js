// GStreamer pipelines as processes of their own.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { createInterface } from "node:readline";

export class Pipeline {
  #process;
  #shown = new Map();

  /** Resolves when the pipeline plays. */
  static async start(description) {
    const pipeline = new Pipeline();
    const words = description.match(/(?:[^\s"]|"[^"]*")+/g).map((word) => word.replaceAll('"', ""));
    pipeline.#process = spawn("gst-launch-1.0", ["--verbose", ...words], {
      stdio: ["ignore", "pipe", "inherit"],
    });
    await new Promise((resolve, reject) => {
      pipeline.#process.once("exit", () => reject(new Error(`a pipeline ended:\n${description}`)));
      createInterface({ input: pipeline.#process.stdout }).on("line", (line) => {
        if (line.startsWith("Setting pipeline to PLAYING")) resolve();
        const [, sink, frames] = line.match(/(\w+): last-message = rendered: (\d+)/) ?? [];
        if (sink) pipeline.#shown.set(sink, Number(frames));
      });
    });
    return pipeline;
  }

  /** How many pictures its `fpsdisplaysink`s have shown. */
  get frames() {
    return [...this.#shown.values()].reduce((sum, frames) => sum + frames, 0);
  }

  get pid() {
    return this.#process.pid;
  }

  async end() {
    this.#process.kill("SIGKILL");
    await once(this.#process, "exit");
  }
}

/** Nanoseconds: between two frames, and for what a frame takes until it is encoded at the latest. */
const FRAME_TIME = 1e9 / 30;
const ENCODING_TIME = 30e6;

/**
 * What is sent for all guests: encoded once, each at a port that takes both its streams. Their pictures are
 * sent in turn over the time of a frame, as cameras that know nothing of each other do.
 */
export function guestsPipeline(ports, { video, audio }) {
  const clients = ports.map((port) => `127.0.0.1:${port}`).join(",");
  const delay = (turn) => Math.round(ENCODING_TIME + (FRAME_TIME * turn) / ports.length);
  const sinks = ports.map(
    (port, turn) => `pictures. ! queue ! udpsink host=127.0.0.1 port=${port} ts-offset=${delay(turn)}`,
  );
  return `
    videotestsrc is-live=true pattern=smpte horizontal-speed=4 !
      video/x-raw,format=I420,width=1280,height=720,framerate=30/1 !
      vp8enc deadline=1 cpu-used=16 target-bitrate=1500000 keyframe-max-dist=30 !
      rtpvp8pay pt=96 ssrc=${video} picture-id-mode=15-bit ! tee name=pictures
    ${sinks.join("\n")}
    audiotestsrc is-live=true freq=330 volume=0.2 samplesperbuffer=960 !
      audio/x-raw,rate=48000,channels=2 ! opusenc ! rtpopuspay pt=111 ssrc=${audio} !
      multiudpsink clients=${clients} sync=false`;
}

/** The show's pictures, made by a process that is not measured. */
export function showPipeline(socket) {
  return `
    videotestsrc is-live=true pattern=smpte horizontal-speed=2 ! video/x-raw,format=I420 !
      clockoverlay font-desc="Sans,40" halignment=center valignment=center shaded-background=true !
      videoconvert ! ${SHOW_CAPS} !
      shmsink socket-path=${socket} shm-size=20000000 wait-for-connection=false sync=false`;
}

/** Bits a second. */
export const SHOW_BITRATE = 1_500_000;
const SHOW_CAPS = "video/x-raw,format=BGRA,width=1024,height=576,framerate=30/1";

/**
 * Receives and decodes the streams, encodes the show and sends it off, encrypted both ways as WebRTC has it.
 * `streams` are `{ kind, port, ssrc, key }`, the key in hexadecimal digits.
 */
export function barePipeline(streams, showSocket) {
  const secure = ({ kind, key, ssrc }) =>
    `application/x-srtp,media=${kind},ssrc=(uint)${ssrc},srtp-key=(buffer)${key},srtp-cipher=aes-128-icm,` +
    "srtp-auth=hmac-sha1-80,srtcp-cipher=aes-128-icm,srtcp-auth=hmac-sha1-80";
  const sink = "fakesink sync=false async=false";
  const counted = `fpsdisplaysink text-overlay=false sync=false video-sink="${sink}"`;
  const received = streams.map((stream) =>
    stream.kind === "video"
      ? `udpsrc port=${stream.port} caps=${secure(stream)},payload=96,clock-rate=90000,encoding-name=VP8 !
         srtpdec ! rtpjitterbuffer latency=100 ! rtpvp8depay ! vp8dec threads=1 !
         ${counted}`
      : `udpsrc port=${stream.port} caps=${secure(stream)},payload=111,clock-rate=48000,encoding-name=OPUS !
         srtpdec ! rtpjitterbuffer latency=100 ! rtpopusdepay ! opusdec ! ${sink}`,
  );
  const send = `srtpenc key=${streams[0].key} rtp-cipher=aes-128-icm rtp-auth=hmac-sha1-80 !
    udpsink host=127.0.0.1 port=9 sync=false async=false`;
  return `
    ${received.join("\n")}
    shmsrc socket-path=${showSocket} is-live=true do-timestamp=true ! ${SHOW_CAPS} !
      videoconvert ! video/x-raw,format=I420 !
      vp8enc deadline=1 cpu-used=14 threads=1 end-usage=cbr lag-in-frames=0 target-bitrate=${SHOW_BITRATE}
        keyframe-max-dist=3000 static-threshold=1 ! rtpvp8pay ! ${send}
    audiotestsrc is-live=true freq=440 volume=0.1 samplesperbuffer=960 ! audio/x-raw,rate=48000,channels=2 !
      opusenc bitrate=96000 inband-fec=true packet-loss-percentage=10 ! rtpopuspay ! ${send}`;
}
