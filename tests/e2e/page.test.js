// The parts of the guests' page that need no browser.

import assert from "node:assert/strict";
import { test } from "node:test";

import { Pulse } from "../../web/guest/flow.js";
import { readLink } from "../../web/guest/link.js";
import { Lobby, explainRefusal } from "../../web/guest/lobby.js";
import { Pace } from "../../web/guest/pace.js";
import { nextTargets } from "../../web/guest/playout.js";
import { readPreferences, readableOn } from "../../web/guest/preferences.js";
import { Session } from "../../web/guest/session.js";
import { parse } from "../../web/guest/signals.js";
import * as show from "../../web/guest/state.js";

const CAMERA = "camera-id";
const SCREEN = "screen-id";

const inRoom = () => show.screen(show.entered(show.connecting(show.initial), CAMERA), SCREEN);
const setting = (subs, flags = {}) =>
  JSON.stringify({ subs, broadcastIsLive: false, recordOnly: false, ...flags });
const entry = (flags = {}) => ({ id: CAMERA, on: false, remoteMuted: false, offAirAudio: false, ...flags });
const after = (state, ...signals) =>
  signals.reduce((each, [type, data]) => show.signalled(each, type, data), state);

test("every place that a guest can be in has its own words", () => {
  const admitted = after(inRoom(), ["start", CAMERA]);
  const at = (flags, top) => show.describe(after(admitted, ["audio_setting", setting([entry(flags)], top)]));
  const places = [
    show.describe(show.connecting(show.initial)),
    show.describe(inRoom()),
    at({}),
    at({}, { broadcastIsLive: true }),
    at({ offAirAudio: true }, { broadcastIsLive: true }),
    at({ on: true }),
    at({ on: true }, { broadcastIsLive: true }),
    at({ on: true }, { broadcastIsLive: true, recordOnly: true }),
    show.describe(show.lost(admitted)),
  ];
  assert.deepEqual(
    places.map(({ name }) => name),
    ["connecting", "ringing", "green-room", "green-room", "off-air", "standby", "on-air", "recorded", "lost"],
  );
  assert.equal(new Set(places.map(({ title, text }) => title + text)).size, places.length);
  assert.match(places[3].text, /Nobody can hear you/);
});

test("what a guest is told of being seen and heard is what leaves the page", () => {
  const live = after(
    inRoom(),
    ["start", CAMERA],
    ["audio_setting", setting([entry({ on: true })], { broadcastIsLive: true })],
  );
  const flows = (news) => ({ flows: { ...show.initial.flows, ...news } });
  const rows = [
    [{}, "On air", /^You are live. Everyone can see and hear you.$/, /^ $/],
    [{ remoteMuted: true }, "On air, muted", /can see you. Nobody can hear/, /^The host has/],
    [{ microphone: "silent" }, "On air, no sound", /can see you. Nobody can hear/, /^No sound comes/],
    [{ microphone: "gone" }, "On air, no sound", /Nobody can hear/, /microphone .* gone/],
    [flows({ audio: "refused" }), "On air, no sound", /Nobody can hear/, /browser's sound. Try another/],
    [{ camera: "gone" }, "On air, no picture", /can hear you. Nobody can see/, /camera .* gone/],
    [flows({ video: "refused" }), "On air, no picture", /Nobody can see/, /browser's pictures. Try another/],
    [flows({ video: "stuck", audio: "stuck" }), "Not seen, not heard", /nobody can see or/, /sound .* picture/],
    [flows({ show: false }), "Nothing comes from the studio", /Perhaps nobody can see or hear/, /^ $/],
  ];
  for (const [news, title, text, own] of rows) {
    const state = show.seen(live, news);
    assert.equal(show.describe(state).title, title);
    assert.match(show.describe(state).text, text, title);
    assert.match(`${show.describeMicrophone(state)} ${show.describeCamera(state)}`, own, title);
  }
  assert.equal(show.seen(live, flows({})), live);
  const unseen = show.seen(live, { camera: "gone" });
  assert.match(show.describe({ ...unseen, live: false, broadcastIsLive: false }).text, /host can hear you/);
  assert.equal(show.entered(unseen, "new").camera, "gone");
});

test("a guest goes by the entries and signals that name it, and by no others", () => {
  const state = inRoom();
  assert.equal(show.signalled(state, "start", "another"), state);
  assert.equal(show.takesOut(state, "stop", "another"), false);
  assert.equal(show.takesOut(state, "stop", SCREEN), false);
  assert.equal(show.takesOut(state, "stop", CAMERA), true);
  const others = after(state, [
    "audio_setting",
    setting([{ ...entry({ on: true, remoteMuted: true }), id: "another" }]),
  ]);
  assert.deepEqual({ ...others, studio: state.studio }, state);
  // The list names guests who still ring, too: only "start" or being live is being brought in.
  assert.equal(after(state, ["audio_setting", setting([entry()])]).admitted, false);
  assert.equal(after(state, ["audio_setting", setting([entry({ on: true })])]).admitted, true);
  const shared = after(
    state,
    ["start", SCREEN],
    ["audio_setting", setting([{ ...entry({ on: true }), id: SCREEN }])],
  );
  assert.deepEqual([shared.screenLive, shared.live, shared.admitted], [true, false, false]);
  assert.equal(after(shared, ["stop", SCREEN]).screenLive, false);
});

test("the microphone is open only if neither the host nor the guest has muted it", () => {
  const muted = after(inRoom(), ["audio_setting", setting([entry({ remoteMuted: true })])]);
  assert.equal(show.microphoneOpen(muted), false);
  assert.match(show.describeMicrophone(muted), /host/);
  const both = { ...muted, selfMuted: true };
  const own = after(both, ["audio_setting", setting([entry()])]);
  assert.equal(show.microphoneOpen(own), false);
  assert.match(show.describeMicrophone(own), /You/);
  assert.equal(show.microphoneOpen({ ...own, selfMuted: false }), true);
});

test("a studio that goes away leaves its guests ringing, and who leaves forgets the room", () => {
  const live = after(
    inRoom(),
    ["start", CAMERA],
    ["audio_setting", setting([entry({ on: true, remoteMuted: true })])],
  );
  assert.equal(show.describe(show.showEnded(live)).name, "ringing");
  assert.deepEqual(show.left({ ...live, broadcastIsLive: true, viewers: "5" }), show.initial);

  // One that takes its place before it is known to be gone: what counts is whom that one brings in.
  const brought = show.signalled(inRoom(), "start", CAMERA, "old");
  const of = (state, from, on = false) =>
    show.signalled(state, "audio_setting", setting([entry({ on })]), from);
  assert.equal(of(brought, "old").admitted, true);
  assert.equal(of(brought, "new").admitted, false);
  assert.equal(of(brought, "new", true).admitted, true);
  assert.equal(of(show.signalled(brought, "start", CAMERA, "new"), "new").admitted, true);
});

test("a flood is taken as far as people read it, others are still heard, and an ebb is noticed", () => {
  const pace = new Pace();
  const taken = { flood: 0, host: 0 };
  for (let now = 0; now < 10_000; now++) {
    if (pace.takes("flood", now)) taken.flood++;
    if (now % 1000 === 999 && pace.takes("host", now)) taken.host++;
  }
  assert.ok(taken.flood >= 70 && taken.flood <= 80, `${taken.flood} lines of one sender in ten seconds`);
  assert.equal(taken.host, 10);
  let all = 0;
  for (let now = 20_000; now < 30_000; now++) if (pace.takes(`sender ${now}`, now)) all++;
  assert.ok(all > 100 && all <= 170, `${all} lines of all in ten seconds`);

  const pulse = new Pulse(0);
  const rows = [
    [0, 2_999, true, false],
    [0, 3_000, false, false],
    [5, 4_000, true, true],
    [5, 6_999, true, true],
    [0, 7_000, false, true], // received anew: nothing yet
    [1, 7_001, true, true],
  ];
  for (const [count, now, beats, begun] of rows) {
    assert.equal(pulse.beats(count, now), beats, `${count} at ${now}`);
    assert.equal(pulse.begun, begun);
  }
});

/** A server that answers only what creates, attaches and detaches; `sent` is what it was sent. */
function standIn(context) {
  const server = { sent: [], closed: false };
  const real = globalThis.WebSocket;
  context.after(() => (globalThis.WebSocket = real));
  globalThis.WebSocket = class {
    static OPEN = 1;
    readyState = 1;
    constructor() {
      server.say = (message) => this.onmessage?.({ data: JSON.stringify(message) });
      queueMicrotask(() => this.onopen());
    }
    send(text) {
      const { janus, transaction, body, handle_id: handle } = JSON.parse(text);
      server.sent.push(body?.request ?? janus);
      server.last = transaction;
      const answered = ["create", "attach", "detach"].includes(janus);
      const answer = { janus: "success", transaction, data: { id: handle ?? 7 } };
      if (answered) queueMicrotask(() => server.say(answer));
    }
    close() {
      server.closed = true;
    }
  };
  return server;
}

test("a session ends once all is answered, and asks nothing more", async (context) => {
  const server = standIn(context);
  const opened = async () => {
    server.closed = false;
    server.sent.length = 0;
    const session = new Session("ws://nowhere/");
    await session.open();
    return { session, handle: await session.attach("videoroom") };
  };
  const turn = () => new Promise(setImmediate);
  const answer = (transaction) => server.say({ janus: "event", transaction, plugindata: { data: {} } });

  const leaving = await opened();
  const join = leaving.handle.request({ request: "join" });
  const joining = server.last;
  const ended = leaving.session.close();
  await assert.rejects(leaving.handle.request({ request: "publish" }), /lost/);
  leaving.handle.detach();
  await turn();
  assert.deepEqual([server.sent, server.closed], [["create", "attach", "join"], false]);
  answer(joining);
  await Promise.all([join, ended]);
  assert.deepEqual([server.sent.at(-1), server.closed], ["destroy", true]);

  // The deadline: a server that never answers is left all the same.
  context.mock.timers.enable({ apis: ["setTimeout", "setInterval"] });
  const hung = await opened();
  hung.handle.request({ request: "join" }).catch(() => {});
  const given = hung.session.close();
  await turn();
  assert.equal(server.closed, false);
  context.mock.timers.tick(5_000);
  await given;
  assert.deepEqual([server.sent.at(-1), server.closed], ["destroy", true]);

  // A handle waits likewise; a page that goes away cannot, and destroys only what owes nothing.
  for (const owing of [false, true]) {
    const { session, handle } = await opened();
    if (owing) handle.request({ request: "configure" }).catch(() => {});
    const asked = server.last;
    handle.detach();
    await turn();
    assert.equal(server.sent.includes("detach"), !owing);
    if (owing) {
      session.close({ now: true });
      assert.deepEqual([server.sent.includes("destroy"), server.closed], [false, true]);
    } else {
      await turn();
      session.close({ now: true });
      assert.deepEqual([server.sent.at(-1), server.closed], ["destroy", true]);
    }
    answer(asked);
  }
});

/** A lobby under the test's control: `sockets` are the connections made to it, the newest last. */
function lobbyOf(context) {
  const sockets = [];
  const real = globalThis.WebSocket;
  context.after(() => (globalThis.WebSocket = real));
  context.mock.timers.enable({ apis: ["setTimeout"] });
  globalThis.WebSocket = class {
    static OPEN = 1;
    readyState = 0;
    sent = [];
    constructor(url, protocol) {
      Object.assign(this, { url, protocol });
      sockets.push(this);
    }
    open() {
      this.readyState = 1;
      this.onopen();
    }
    send(text) {
      this.sent.push(JSON.parse(text));
    }
    say(message) {
      this.onmessage?.({ data: JSON.stringify(message) });
    }
    close() {
      this.closed = true;
    }
  };
  const told = [];
  const names = ["seat", "program", "recording", "alone", "removed", "refused"];
  const on = Object.fromEntries(names.map((name) => [name, (value) => told.push([name, value])]));
  return { sockets, told, make: () => new Lobby("ws://nowhere/lobby", on) };
}

test("a guest comes back to the seat whatever happens to the lobby, until the seat is gone", (context) => {
  const { sockets, told, make } = lobbyOf(context);
  const lobby = make();
  const newest = () => sockets.at(-1);
  const tick = (time) => context.mock.timers.tick(time);

  lobby.ask("i", "Ada");
  lobby.tell({ hidden: false, microphone: "on" });
  newest().open();
  assert.deepEqual([newest().sent, newest().protocol], [[{ ask: { invite: "i", name: "Ada" } }], "zarvo-lobby"]);
  const seat = { key: "k", number: 1, room: "r" };
  newest().say({ seat });
  lobby.tell({ microphone: "off" });
  lobby.tell({ microphone: "lost" });
  tick(300);
  const first = { state: { hidden: false, microphone: "on" } };
  assert.deepEqual(newest().sent.slice(1), [first, { state: { microphone: "lost" } }], "what changed, and once");

  newest().say({ program: { room: "p", pin: "1", feed: null } });
  newest().say({ program: null });
  newest().say({ recording: true });
  newest().say({ unheard: "of" });
  newest().onmessage({ data: "no JSON" });
  const program = { room: "p", pin: "1", feed: null };
  assert.deepEqual(told, [["seat", seat], ["program", program], ["program", null], ["recording", true]]);

  // The studio is away for long: tried for ever, and never at short intervals.
  for (let attempt = 0; attempt < 20; attempt++) {
    newest().onclose();
    tick(10_000);
  }
  assert.equal(sockets.length, 21);
  newest().open();
  assert.deepEqual(newest().sent, [{ return: { key: "k" } }], "with the key, and not as a new guest");
  newest().say({ refused: { reason: "rate", retry: 30 } });
  assert.ok(newest().closed);
  tick(20_000);
  assert.equal(sockets.length, 21);
  tick(20_000);
  newest().open();
  newest().say({ seat });
  assert.deepEqual(newest().sent.at(-1), { state: { hidden: false, microphone: "lost" } }, "all of it, anew");
  const before = newest();
  lobby.connectAnew();
  assert.ok(before.closed && before.onclose === null, "the one before is not heard any more");
  newest().open();
  newest().say({ refused: { reason: "elsewhere" } });
  tick(60_000);
  assert.deepEqual([told.at(-1), sockets.length], [["refused", "elsewhere"], 23]);

  // Somebody who has never been in hears soon that there is no lobby.
  make().ask("i", "Ada");
  for (let attempt = 0; attempt < 3; attempt++) {
    newest().onclose();
    tick(10_000);
  }
  assert.deepEqual(told.at(-1), ["refused", "unreachable"]);
  const reasons = ["full", "busy", "rate", "invitation", "taken", "name", "seat", "elsewhere", "closed"];
  assert.equal(new Set([...reasons, "unreachable", "?"].map(explainRefusal)).size, reasons.length + 2);

  lobby.comeBack("k");
  newest().open();
  newest().say({ seat });
  lobby.leave();
  assert.deepEqual([newest().sent.at(-1), newest().closed], [{ leave: {} }, true]);
});

test("a guest with a seat is told what becomes of the show's picture, and where they are", () => {
  const at = (news) => ({ ...inRoom(), seated: true, ...news });
  const feed = { room: "p", feed: "f" };
  const rows = [
    [{ seated: false }, false, /^The show appears/, "Ringing"],
    [{}, false, /no picture and no sound/, "Ringing"],
    [{ program: feed }, false, /no picture of the show yet/, "Coming back"],
    [{ program: feed, admitted: true }, true, /^$/, "Green room"],
    [{ program: { ...feed, feed: null }, admitted: true }, true, /being restored/, "Green room"],
    [{ program: null, admitted: true }, false, /no picture of the show at the moment/, "Green room"],
  ];
  for (const [news, shown, words, title] of rows) {
    assert.match(show.describePicture(at(news), shown), words, JSON.stringify(news));
    assert.equal(show.describe(at(news)).title, title, JSON.stringify(news));
  }
  const restored = show.entered(show.lost(at({ program: feed, recording: true, admitted: true })), "new");
  assert.deepEqual([restored.program, restored.recording, restored.admitted], [feed, true, false]);
  assert.equal(show.left(restored).program, null);
});

test("sound and picture come together whichever is behind, and neither waits without need", () => {
  const settle = (natural, seconds = 30) => {
    let targets = { sound: 0, picture: 0 };
    let delays = natural;
    for (let second = 0; second < seconds; second++) {
      delays = {
        sound: Math.max(natural.sound, targets.sound),
        picture: Math.max(natural.picture, targets.picture),
      };
      targets = nextTargets(targets, delays, delays.picture - delays.sound);
    }
    return { ...targets, apart: Math.abs(delays.picture - delays.sound) };
  };
  assert.deepEqual(settle({ sound: 40, picture: 45 }), { sound: 0, picture: 0, apart: 5 });
  const [late, early] = [settle({ sound: 40, picture: 180 }), settle({ sound: 160, picture: 30 })];
  assert.ok(late.apart < 20 && late.picture === 0, JSON.stringify(late));
  assert.ok(early.apart < 20 && early.sound === 0, JSON.stringify(early));
  assert.equal(settle({ sound: 40, picture: 900 }).sound, 250);
  // The network calms down: whoever waited waits no more.
  const calm = nextTargets({ sound: 180, picture: 0 }, { sound: 180, picture: 40 }, -140);
  assert.deepEqual(calm, { sound: 40, picture: 0 });
});

test("signals of another shape change nothing", () => {
  const state = after(inRoom(), ["start", CAMERA], ["viewer_count", '{"viewer_count": "12"}']);
  assert.equal(state.viewers, "12");
  const signals = [
    ["viewer_count", '{"viewer_count": 12}'],
    ["viewer_count", "["],
    ["audio_setting", '{"subs": {}}'],
    ["audio_setting", "null"],
    ["Start", CAMERA],
    ["toString", "{}"],
  ];
  for (const [type, data] of signals)
    assert.equal(show.signalled(state, type, data), state, `${type} ${data}`);
  assert.doesNotThrow(() => show.signalled(state, "audio_setting", '{"subs": [null, 1, [], {"id": 4}]}'));
  for (const text of ["1", "null", "[1]", '"a"', "{", ""]) assert.deepEqual(parse(text), {});
});

test("the link is read from behind the number sign, and preferences only as far as they are known", () => {
  assert.deepEqual(readLink({ hash: "#room=a%20b&token=t", search: "" }), { room: "a b", token: "t" });
  assert.deepEqual(readLink({ hash: "", search: "?room=a&token=t" }), { room: "a", token: "t" });
  assert.deepEqual(readLink({ hash: "#invite=i&room=a", search: "" }), { invite: "i" });
  assert.equal(readLink({ hash: "#room=a", search: "" }), null);
  assert.deepEqual(readPreferences({ title: "A", notice: 4, accent: "red", other: 1 }), { title: "A" });
  assert.deepEqual(readPreferences({ accent: "#FFEE00" }), { accent: "#ffee00" });
  assert.deepEqual([readableOn("#ffee00"), readableOn("#101060")], ["#000000", "#ffffff"]);
});
