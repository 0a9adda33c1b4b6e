// What the studio and the guests tell each other, and the show that the guests see and hear.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { TONES, inState, launch, ring, says } from "./support/browser.js";
import { alike } from "./support/content.js";
import { Studio } from "./support/studio.js";

const SHOW = { rgb: [32, 64, 192], hertz: 880 };
const SOURCE =
  "videotestsrc is-live=true pattern=solid-color foreground-color=0xff2040c0 ! video/x-raw,width=320,height=180,framerate=15/1 ! identity " +
  `audiotestsrc is-live=true freq=${SHOW.hertz} volume=0.5`;

let studio, browser;
let ada, id, room;

before(async () => {
  [studio, browser] = await Promise.all([
    Studio.start("--show", SOURCE, "--width", "320", "--height", "180", "--fps", "15"),
    launch(),
  ]);
  room = await listenIn();
  ada = await browser.open(studio.link, { name: "Ada" });
  await ring(ada);
  id = (await studio.report("ring", { name: "Guest - Ada" })).ring;
  await studio.admit(id);
  await inState(ada, "green-room");
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

/** Somebody in the room who is no guest and writes down every signal as it comes. */
async function listenIn() {
  const page = await browser.open(new URL("/", studio.link).href);
  await page.evaluate(async (hash) => {
    const { Session } = await import("./session.js");
    const { Signals } = await import("./signals.js");
    const { readConfig, readLink } = await import("./link.js");
    const link = { ...readLink({ hash, search: "" }), ...(await readConfig(location)) };
    const session = new Session(link.url);
    await session.open();
    const handle = await session.attach("videoroom");
    const body = {
      request: "join",
      ptype: "publisher",
      room: link.room,
      token: link.token,
      display: "Listener",
    };
    const { data } = await handle.request(body);
    window.heard = [];
    window.signals = new Signals();
    window.signals.onsignal = (type, data) => window.heard.push({ type, data });
    await window.signals.open(session, link, data.id);
  }, new URL(studio.link).hash);

  return {
    send: (type, data) => page.evaluate(([type, data]) => window.signals.send(type, data), [type, data]),
    /** Forgets what came, has `act` done, and resolves with the next signal of the type. */
    async next(type, act) {
      await page.evaluate(() => (window.heard.length = 0));
      await act();
      const found = await page.waitForFunction(
        (type) => window.heard.find((signal) => signal.type === type),
        type,
      );
      return (await found.jsonValue()).data;
    },
    all: () => page.evaluate(() => window.heard),
  };
}

const json = async (data) => JSON.parse(await data);

test("the show's picture and sound arrive at the guest", async () => {
  await ada.waitForFunction(() => document.querySelector("#show").videoWidth > 0);
  const seen = await ada.waitForFunction(() => {
    const show = document.querySelector("#show");
    const canvas = Object.assign(document.createElement("canvas"), {
      width: show.videoWidth,
      height: show.videoHeight,
    });
    const context = canvas.getContext("2d");
    context.drawImage(show, 0, 0);
    const [red, green, blue] = context.getImageData(canvas.width / 2, canvas.height / 2, 1, 1).data;
    return red + green + blue > 0 && { width: canvas.width, height: canvas.height, rgb: [red, green, blue] };
  });
  const { width, height, rgb } = await seen.jsonValue();
  assert.deepEqual({ width, height }, { width: 320, height: 180 });
  assert.ok(alike(rgb, SHOW.rgb), `the show is ${rgb}`);

  // The loudest tone, once there is any sound.
  const tone = await ada.evaluate(async () => {
    const context = new AudioContext();
    const analyser = new AnalyserNode(context, { fftSize: 8192, smoothingTimeConstant: 0 });
    context.createMediaStreamSource(document.querySelector("#show").srcObject).connect(analyser);
    const bins = new Float32Array(analyser.frequencyBinCount);
    for (
      const end = Date.now() + 15_000;
      Date.now() < end;
      await new Promise((done) => setTimeout(done, 100))
    ) {
      analyser.getFloatFrequencyData(bins);
      const loudest = bins.indexOf(Math.max(...bins));
      if (bins[loudest] > -40) return (loudest * context.sampleRate) / analyser.fftSize;
    }
    return 0;
  });
  assert.ok(Math.abs(tone - SHOW.hertz) < 10, `the show sounds at ${tone} Hz`);
});

test("start, audio_setting and stop say how each guest stands", async () => {
  const entry = (flags) => ({ subs: [{ id, on: false, remoteMuted: false, offAirAudio: false, ...flags }] });
  const rows = [
    [`live ${id}`, entry({ on: true }), {}],
    ["golive", entry({ on: true }), { broadcastIsLive: true }],
    ["record", entry({ on: true }), { broadcastIsLive: true, recordOnly: true }],
    ["offair on", entry({ on: true, offAirAudio: true }), { broadcastIsLive: true, recordOnly: true }],
    [`greenroom ${id}`, entry({ offAirAudio: true }), { broadcastIsLive: true, recordOnly: true }],
    ["offair off", entry(), { broadcastIsLive: true, recordOnly: true }],
    ["endshow", entry(), {}],
  ];
  for (const [command, subs, flags] of rows) {
    const told = await json(room.next("audio_setting", () => studio.say(command)));
    assert.deepEqual(told, { broadcastIsLive: false, recordOnly: false, ...flags, ...subs }, command);
  }

  const bob = await browser.open(studio.link, { name: "Bob" });
  const rung = studio.now;
  await ring(bob);
  const { ring: bobId } = await studio.report("ring", { name: "Guest - Bob" }, rung);
  assert.equal(await room.next("start", () => studio.say(`admit ${bobId}`)), bobId);
  await inState(bob, "green-room");
  assert.equal(await room.next("stop", () => studio.say(`remove ${bobId}`)), bobId);
  await inState(bob, "lobby");
  await inState(ada, "green-room");
  await bob.context().close();
});

test("a guest whom the host mutes is silent at the source and told so", async () => {
  const muted = studio.now;
  studio.say(`mute ${id}`);
  await says(ada, "#own", /host has switched your microphone off/);
  await says(ada, "#mute", /by the host/);
  await studio.report("hasAudioChanged", { hasAudio: false }, muted);
  await studio.guests("a muted guest is silent", ({ level }) => level === null || level < -80);
  assert.equal(
    await ada.evaluate(() => document.querySelector("#self").srcObject.getAudioTracks()[0].enabled),
    false,
  );

  // The guest cannot take the host's mute off, and the host does not take off the guest's own.
  await ada.click("#mute", { force: true });
  await says(ada, "#mute", /by the host/);
  const unmuted = studio.now;
  studio.say(`unmute ${id}`);
  await says(ada, "#own", /^$/);
  await studio.report("hasAudioChanged", { hasAudio: true }, unmuted);
  await studio.guests("a guest is heard again", ({ level }) => level > -60);
  await ada.click("#mute");
  await says(ada, "#own", /You have switched/);
  await studio.guests("a guest who muted is silent", ({ level }) => level === null || level < -80);
  await ada.click("#mute");
});

test("a guest's sound is folded to mono when the guest asks for it", async () => {
  await studio.guests("the guest is heard", ({ level }) => level > -60);
  const [left] = await studio.listen(id, TONES);
  assert.ok(left.inTones[0] > 0.8 && left.inTones[1] < 0.05, `stereo: ${left.inTones}`);
  await ada.click("#settings");
  assert.deepEqual(await json(room.next("mono", () => ada.check("#mono"))), { mono: "yes" });
  for (let tries = 0; ; tries++) {
    // The wish takes its time to arrive.
    const [{ inTones }] = await studio.listen(id, TONES);
    if (inTones.every((part) => part > 0.35)) break;
    assert.ok(tries < 5, `mono: ${inTones}`);
  }
});

test("viewer counts, comments, favourites and preferences reach the page", async () => {
  assert.deepEqual(await json(room.next("viewer_count", () => studio.say("viewers 1234"))), {
    viewer_count: "1234",
  });
  await says(ada, "#viewers", /^1234 watching$/);
  // The same count is not sent again: the one after it comes next.
  const counted = room.next("viewer_count", () => (studio.say("viewers 1234"), studio.say("viewers 1235")));
  assert.deepEqual(await json(counted), { viewer_count: "1235" });

  const hostile = `<img src=x onerror="window.hacked = true"><b>bold</b>`;
  let comment;
  const told = await json(
    room.next(
      "comment",
      async () => (comment = await studio.ask(`comment <i>Eve</i>: ${hostile}`, "commentSent")),
    ),
  );
  assert.deepEqual(told, { name: "<i>Eve</i>", text: hostile, uuid: comment.uuid });
  const line = `[data-uuid="${comment.uuid}"]`;
  await says(ada, `${line} .what`, /^<img src=x/);
  await says(ada, `${line} .who`, /^<i>Eve<\/i>$/);
  assert.equal(await ada.locator("img, #comments b, #comments i").count(), 0);
  assert.equal(await ada.evaluate(() => window.hacked), undefined);

  const marked = studio.now;
  await ada.click(`${line} .star`);
  await studio.report("fav", { uuid: comment.uuid, state: "yes" }, marked);
  await ada.waitForSelector(`${line} .star[aria-pressed="true"]`);
  const unmarked = room.next("fav", () => studio.say(`fav ${comment.uuid} off`));
  assert.deepEqual(await json(unmarked), { uuid: comment.uuid, state: "no" });
  await ada.waitForSelector(`${line} .star[aria-pressed="false"]`);

  const preferences = `{"title": "Friday night", "accent": "#ffee00", "other": [1]}`;
  assert.equal(await room.next("prefUpdate", () => studio.say(`pref ${preferences}`)), preferences);
  await says(ada, "#title", /^Friday night$/);
  assert.equal(await room.next("prefUpdate", () => studio.say("pref no JSON")), "no JSON");
  await says(ada, "#title", /^Friday night$/);
});

test("chat goes both ways, and nobody reads a line twice", async () => {
  let sent;
  const told = await json(
    room.next("chat", async () => (sent = await studio.ask("chat Host: Welcome: <b>all</b>", "chatSent"))),
  );
  assert.deepEqual(told, { name: "Host", text: "Welcome: <b>all</b>", uuid: sent.uuid });
  await says(ada, `#chat [data-uuid="${sent.uuid}"] .what`, /^Welcome: <b>all<\/b>$/);

  const before = studio.now;
  const own = await json(
    room.next("chat", async () => {
      await ada.fill("#chat-text", "Hello „studio“ <b>");
      await ada.press("#chat-text", "Enter");
    }),
  );
  assert.match(own.uuid, /^[0-9A-F-]{36}$/);
  const { message, name, uuid } = await studio.report("chat", { uuid: own.uuid }, before);
  assert.deepEqual({ text: message, name, uuid }, own);
  assert.deepEqual(own, { text: "Hello „studio“ <b>", name: "Ada", uuid });

  // A page that sends no uuid has its line given one by the service.
  const bare = studio.now;
  await ada.evaluate(async () => {
    const { Signals } = await import("./signals.js");
    const { send } = Signals.prototype;
    Signals.prototype.send = function (type, data) {
      Signals.prototype.send = send;
      return send.call(this, type, JSON.stringify({ ...JSON.parse(data), uuid: undefined }));
    };
  });
  await ada.fill("#chat-text", "No uuid");
  await ada.press("#chat-text", "Enter");
  const given = await studio.report("chat", { message: "No uuid" }, bare);
  assert.match(given.uuid, /^GUEST_[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$/);

  // By the time that this line has come back, so has the guest's own.
  const last = await studio.ask("chat Host: Last", "chatSent");
  await ada.waitForSelector(`#chat [data-uuid="${last.uuid}"]`);
  const lines = await ada.locator("#chat .said .what").allTextContents();
  assert.equal(lines.filter((line) => line.startsWith("Hello")).length, 1);
});

test("signals of a wrong shape harm neither side", async () => {
  const nested = "[".repeat(10_000);
  const bad = [
    "",
    "null",
    "[]",
    "7",
    "{",
    nested,
    '{"text": 5, "name": [], "uuid": {}}',
    '{"subs": [null, {"id": 1}]}',
  ];
  for (const type of ["chat", "fav", "mono", "audio_setting", "comment", "viewer_count", "nonsense", ""]) {
    for (const data of bad) await room.send(type, data);
  }
  const after = studio.now;
  await room.send("fav", '{"uuid": "still there", "state": "yes"}');
  await studio.report("fav", { uuid: "still there" }, after);
  const sent = await studio.ask("chat Host: Still there", "chatSent");
  await ada.waitForSelector(`#chat [data-uuid="${sent.uuid}"]`);
  assert.deepEqual(browser.faults, []);
});
