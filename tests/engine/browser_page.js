// A participant of a room, made of the parts of the guests' page: it publishes and signals, and tells the colour
// and tone of what it receives.
import { Session } from "../../web/guest/session.js";
import { Signals } from "../../web/guest/signals.js";
import { Publisher, Subscriber } from "../../web/guest/streams.js";

const participants = new Map(); // by the name that the test gives them

async function connect(server) {
  const session = new Session(server);
  session.onlost = () => session.open(); // the server may have stood still for a while
  await session.open();
  return session;
}

export async function makeRoom({ server, room, token, pin }) {
  const session = await connect(server);
  const body = { request: "create", room, secret: "host", is_private: true, allowed: [token] };
  if (pin) body.pin = pin;
  const videoRoom = await session.attach("videoroom");
  await videoRoom.request({ ...body, publishers: 32, notify_joining: true });
  const textRoom = await session.attach("textroom");
  await textRoom.request(body);
  session.close();
}

export async function joinRoom({ server, room, token, pin, as }) {
  const session = await connect(server);
  const handle = await session.attach("videoroom");
  const me = { session, link: { room, token, iceServers: [] }, others: new Set(), changed() {} };
  participants.set(as, me);
  const note = ({ publishers = [], unpublished, leaving }) => {
    for (const { id } of publishers) me.others.add(id);
    me.others.delete(unpublished ?? leaving);
    me.changed();
  };
  handle.onevent = note;
  const { data } = await handle.request({ request: "join", ptype: "publisher", room, token, pin, display: as });
  me.publisher = new Publisher(handle, [], data.id);
  note(data);
}

/** The server's refusal, 0 where there is none, of a join by `by`, to publish or to receive one's own stream. */
export async function tryJoin({ as, ptype, by }) {
  const { session, link, publisher } = participants.get(as);
  const handle = await session.attach("videoroom");
  const body = { request: "join", ptype, room: link.room, streams: [{ feed: publisher.id }], ...by };
  const refusal = await handle.request(body).then(
    () => 0,
    ({ code }) => code,
  );
  handle.detach();
  return refusal;
}

/** As a page that goes away does. */
export function leave({ as }) {
  const { session, publisher } = participants.get(as);
  session.close();
  publisher.close();
}

// ---- The participant's stream ------------------------------------------------

export async function publish({ as, type, width, height }) {
  const me = participants.get(as);
  me.canvas = Object.assign(document.createElement("canvas"), { width, height });
  setInterval(() => draw(me), 33);
  const media = me.canvas.captureStream(30);
  const audio = new AudioContext({ sampleRate: 48_000 });
  const oscillator = new OscillatorNode(audio);
  const sink = audio.createMediaStreamDestination();
  oscillator.connect(sink);
  oscillator.start();
  media.addTrack(sink.stream.getAudioTracks()[0]);
  me.descriptions = { video: `${type} ${width}x${height}`, audio: "on" };
  await me.publisher.publish(media, ["video", "audio"], (kind) => me.descriptions[kind]);
}

// Something has to change, else no frames are captured.
function draw(me) {
  me.blink = !me.blink;
  const context = me.canvas.getContext("2d");
  context.fillStyle = me.blink ? "black" : "white";
  context.fillRect(0, 0, me.canvas.width, me.canvas.height);
}

export function change({ as, width, height }) {
  Object.assign(participants.get(as).canvas, { width, height });
}

export function describe({ as, kind, description }) {
  const me = participants.get(as);
  me.descriptions[kind] = description;
  return me.publisher.describeAgain();
}

export async function unpublish({ as }) {
  const { handle, connection } = participants.get(as).publisher;
  await handle.request({ request: "unpublish" });
  connection.close();
}

// ---- Signals -----------------------------------------------------------------

export async function openSignals({ as }) {
  const me = participants.get(as);
  me.signals = new Signals();
  await me.signals.open(me.session, me.link, me.publisher.id);
}

export function sendSignal({ as, type, data }) {
  participants.get(as).signals.send(type, data);
}

/** Sends a text that need not be a signal. */
export function sendText({ as, text }) {
  const { send } = RTCDataChannel.prototype;
  RTCDataChannel.prototype.send = function (message) {
    send.call(this, JSON.stringify({ ...JSON.parse(message), text }));
  };
  sendSignal({ as, type: "", data: "" });
  RTCDataChannel.prototype.send = send;
}

// ---- What is received --------------------------------------------------------

/** Watches the only other stream. While there are two, one is about to go. */
export async function watch({ as }) {
  const me = participants.get(as);
  while (me.others.size !== 1) await new Promise((resolve) => (me.changed = resolve));
  const subscriber = new Subscriber(...me.others, ["audio", "video"]);
  await subscriber.open(me.session, me.link);
  me.video = Object.assign(document.createElement("video"), { srcObject: subscriber.stream, muted: true });
  me.video.play(); // begins with the first picture
  const audio = new AudioContext({ sampleRate: 48_000 });
  me.analyser = new AnalyserNode(audio, { fftSize: 8192 });
  audio.createMediaStreamSource(subscriber.stream).connect(me.analyser);
}

/** The width and middle colour of the watched picture, and the loudest tone. */
export function look({ as }) {
  const { video, analyser } = participants.get(as);
  const context = new OffscreenCanvas(1, 1).getContext("2d");
  context.drawImage(video, video.videoWidth / 2, video.videoHeight / 2, 1, 1, 0, 0, 1, 1);
  const color = [...context.getImageData(0, 0, 1, 1).data].slice(0, 3);
  const levels = new Float32Array(analyser.frequencyBinCount);
  analyser.getFloatFrequencyData(levels);
  const loudest = levels.indexOf(Math.max(...levels));
  const tone = (loudest * 48_000) / analyser.fftSize;
  return { width: video.videoWidth, color, tone, level: levels[loudest] };
}
