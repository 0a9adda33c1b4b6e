// What the studio and the guests tell each other, and who is heard.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { TONES, comeIn, inState, launch, listenIn, says } from "./support/browser.js";
import { Studio, isHeard, isSilent } from "./support/studio.js";

let studio, browser;
let ada, guest; // the page, and the guest's number
let id; // what the seat's own signals call the guest

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--show", "off"), launch()]);
  ada = await browser.open(studio.link, { name: "Ada" });
  await listenIn(ada);
  id = await next("start", async () => (guest = await comeIn(ada, studio, "Ada")));
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

/** Sends a signal to Ada's room, as it is. */
const send = (type, data) => ada.evaluate(([type, data]) => window.signals.send(type, data), [type, data]);

/** Forgets what came, has `act` done, and resolves with the data of the next signal of the type. */
async function next(type, act) {
  await ada.evaluate(() => (window.heard.length = 0));
  await act();
  const come = (type) => window.heard.find((signal) => signal.type === type);
  const found = await ada.waitForFunction(come, type);
  return (await found.jsonValue()).data;
}
const nextJson = async (type, act) => JSON.parse(await next(type, act));

test("a guest whom the host mutes is silent at the source and told so", async () => {
  studio.say(`mute ${guest}`);
  await says(ada, "#own", /host has switched your microphone off/);
  await says(ada, "#mute", /by the host/);
  await studio.guest(guest, "a muted guest is silent", (row) => row.muted && isSilent(row));
  assert.equal(
    await ada.evaluate(() => document.querySelector("#self").srcObject.getAudioTracks()[0].enabled),
    false,
  );

  // The guest cannot take the host's mute off, and the host does not take off the guest's own.
  await ada.click("#mute", { force: true });
  await says(ada, "#mute", /by the host/);
  studio.say(`unmute ${guest}`);
  await says(ada, "#own", /^$/);
  await studio.guest(guest, "a guest is heard again", (row) => row.microphone === "on" && isHeard(row));
  await ada.click("#mute");
  await says(ada, "#own", /You have switched/);
  const isOff = (row) => row.microphone === "off" && !row.muted && isSilent(row);
  await studio.guest(guest, "a guest who muted is silent", isOff);
  await ada.click("#mute");
});

test("the green room, the air and off-air audio decide what guests are told and who is heard", async () => {
  const recorded = { broadcastIsLive: true, recordOnly: true };
  const rows = [
    [`live ${guest}`, "standby", isHeard, { on: true }, {}],
    ["golive", "on-air", isHeard, { on: true }, { broadcastIsLive: true }],
    ["record", "recorded", isHeard, { on: true }, recorded],
    ["offair on", "recorded", isHeard, { on: true, offAirAudio: true }, recorded],
    [`greenroom ${guest}`, "off-air", isHeard, { offAirAudio: true }, recorded],
    ["offair off", "green-room", isSilent, {}, recorded],
    ["endshow", "green-room", isHeard, {}, {}],
  ];
  for (const [command, state, fits, flags, show] of rows) {
    const told = await nextJson("audio_setting", () => studio.say(command));
    const entry = { id, on: false, remoteMuted: false, offAirAudio: false, ...flags };
    assert.deepEqual(told, { broadcastIsLive: false, recordOnly: false, ...show, subs: [entry] }, command);
    await inState(ada, state);
    await studio.guest(guest, `the level after "${command}"`, fits);
  }
});

test("a guest's sound is folded to mono when the guest asks for it", async () => {
  await studio.guest(guest, "is heard", isHeard);
  const [left, right] = await studio.listen(guest, TONES);
  assert.ok(left[0] > 0.8 && left[1] < 0.05 && right[1] > 0.8, `stereo: ${left}; ${right}`);
  await ada.click("#settings");
  assert.deepEqual(await nextJson("mono", () => ada.check("#mono")), { mono: "yes" });
  for (let tries = 0; ; tries++) {
    // The wish takes its time to arrive.
    const [mixed] = await studio.listen(guest, TONES);
    if (mixed.every((part) => part > 0.35)) break;
    assert.ok(tries < 5, `mono: ${mixed}`);
  }
});

test("viewer counts, comments, favourites and preferences reach the page", async () => {
  const counted = await nextJson("viewer_count", () => studio.say("viewers 1234"));
  assert.deepEqual(counted, { viewer_count: "1234" });
  await says(ada, "#viewers", /^1234 watching$/);
  // The same count is not sent again: the one after it comes next.
  const twice = () => [1234, 1235].forEach((count) => studio.say(`viewers ${count}`));
  assert.deepEqual(await nextJson("viewer_count", twice), { viewer_count: "1235" });

  const hostile = `<img src=x onerror="window.hacked = true"><b>bold</b>`;
  const { uuid, ...told } = await nextJson("comment", () => studio.say(`comment <i>Eve</i>: ${hostile}`));
  assert.deepEqual(told, { name: "<i>Eve</i>", text: hostile });
  await studio.report("commentSent", { uuid });
  const line = `[data-uuid="${uuid}"]`;
  await says(ada, `${line} .what`, /^<img src=x/);
  await says(ada, `${line} .who`, /^<i>Eve<\/i>$/);
  assert.equal(await ada.locator("img, #comments b, #comments i").count(), 0);
  assert.equal(await ada.evaluate(() => window.hacked), undefined);

  const marked = studio.now;
  const own = await nextJson("fav", () => ada.click(`${line} .star`)); // which comes back to the page
  assert.deepEqual(own, { uuid, state: "yes" });
  await studio.report("fav", { uuid, state: "yes" }, marked);
  await ada.waitForSelector(`${line} .star[aria-pressed="true"]`);
  const unmarked = await nextJson("fav", () => studio.say(`fav ${uuid} off`));
  assert.deepEqual(unmarked, { uuid, state: "no" });
  await ada.waitForSelector(`${line} .star[aria-pressed="false"]`);

  const preferences = `{"title": "Friday night", "accent": "#ffee00", "other": [1]}`;
  assert.equal(await next("prefUpdate", () => studio.say(`pref ${preferences}`)), preferences);
  await says(ada, "#title", /^Friday night$/);
  assert.equal(await next("prefUpdate", () => studio.say("pref no JSON")), "no JSON");
  await says(ada, "#title", /^Friday night$/);
});

test("chat goes round under the seats' names, to latecomers too, and nobody reads a line twice", async () => {
  const shows = (page, { uuid }, line) => says(page, `#chat [data-uuid="${uuid}"]`, line);
  const told = await nextJson("chat", () => studio.say("chat Host: Welcome: <b>all</b>"));
  assert.deepEqual(told, { name: "Host", text: "Welcome: <b>all</b>", uuid: told.uuid });
  await studio.report("chatSent", { uuid: told.uuid });
  await shows(ada, told, /^Host\d.*Welcome: <b>all<\/b>$/);

  // Bob's room is another one: of what he is told nothing reaches Ada's.
  await ada.evaluate(() => (window.heard.length = 0));
  const bob = await browser.open(studio.link, { name: "Bob" });
  await comeIn(bob, studio, "Bob");
  await shows(bob, told, /^Host\d.*Welcome/);
  assert.deepEqual(await ada.evaluate(() => window.heard), []);

  const own = await nextJson("chat", async () => {
    await ada.fill("#chat-text", "Hello „studio“ <b>");
    await ada.press("#chat-text", "Enter");
  });
  assert.match(own.uuid, /^[0-9A-F-]{36}$/);
  const { message, name, uuid } = await studio.report("chat", { guest, uuid: own.uuid });
  assert.deepEqual({ text: message, name, uuid }, own);
  assert.deepEqual(own, { text: "Hello „studio“ <b>", name: "Ada", uuid });
  await shows(bob, own, /^Ada\d.*Hello „studio“ <b>$/);

  // Whatever the signal says: another's name, and another line's uuid or none.
  for (const line of [{ text: "Not the host", uuid: told.uuid }, { text: "No uuid" }]) {
    await send("chat", JSON.stringify({ name: "Host", ...line }));
    const given = await studio.report("chat", { guest, message: line.text, name: "Ada" });
    assert.match(given.uuid, /^(GUEST_)?[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$/);
    await shows(bob, given, new RegExp(`^Ada\\d.*${line.text}$`));
  }
  await shows(bob, told, /^Host\d.*Welcome/);

  // By the time that this line has come back, so has the guest's own.
  await shows(ada, await studio.ask("chat Host: Last", "chatSent"), /Last$/);
  const lines = await ada.locator("#chat .said .what").allTextContents();
  assert.equal(lines.filter((line) => line.startsWith("Hello")).length, 1);
});

test("signals of a wrong shape harm neither side", async () => {
  const misshapen = '{"text": 5, "name": [], "uuid": {}, "subs": [null, {"id": 1}]}';
  for (const type of ["chat", "fav", "mono", "audio_setting", "comment", "viewer_count", "nonsense", ""]) {
    for (const data of ["", "null", "[]", "7", "{", "[".repeat(10_000), misshapen]) await send(type, data);
  }
  const after = studio.now;
  await send("fav", '{"uuid": "still there", "state": "yes"}');
  await studio.report("fav", { uuid: "still there" }, after);
  const sent = await studio.ask("chat Host: Still there", "chatSent");
  await ada.waitForSelector(`#chat [data-uuid="${sent.uuid}"]`);
  assert.deepEqual(browser.faults, []);
});
