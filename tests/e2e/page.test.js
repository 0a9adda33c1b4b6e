// The parts of the guests' page that need no browser.

import assert from "node:assert/strict";
import { test } from "node:test";

import { readLink } from "../../web/guest/link.js";
import { readPreferences, readableOn } from "../../web/guest/preferences.js";
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
  assert.deepEqual(others, state);
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
  assert.equal(readLink({ hash: "#room=a", search: "" }), null);
  assert.deepEqual(readPreferences({ title: "A", notice: 4, accent: "red", other: 1 }), { title: "A" });
  assert.deepEqual(readPreferences({ accent: "#FFEE00" }), { accent: "#ffee00" });
  assert.deepEqual([readableOn("#ffee00"), readableOn("#101060")], ["#000000", "#ffffff"]);
});
