// A guest's whole road: from the browser's camera and microphone to the studio, and out again.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { CAMERA_SIZE, TONES, inState, launch, ring, says } from "./support/browser.js";
import { QUARTERS, alike } from "./support/content.js";
import { Studio } from "./support/studio.js";

let studio, browser;
let ada, adaId;

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--show", "off"), launch()]);
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

/** Rings; resolves with the id under which the studio hears of it. */
async function ringIn(page, name) {
  const after = studio.now;
  await ring(page);
  return (await studio.report("ring", { name: `Guest - ${name}`, screenShare: false }, after)).ring;
}

async function sees(id) {
  const { width, height, quarters } = await studio.snapshot(id);
  assert.deepEqual({ width, height }, CAMERA_SIZE);
  quarters.forEach((colour, at) => assert.ok(alike(colour, QUARTERS[at].rgb), `quarter ${at} is ${colour}`));
}

const heard = (level) => level !== null && level > -60;

test("a guest rings, is brought in, seen and heard", async () => {
  ada = await browser.open(studio.link, { name: "Ada" });
  adaId = await ringIn(ada, "Ada");
  const { width, height } = await studio.admit(adaId);
  assert.deepEqual({ width, height }, CAMERA_SIZE);
  await inState(ada, "green-room");
  await sees(adaId);
  await studio.guests("a guest in the green room is heard", ({ level }) => heard(level));
  const channels = await studio.listen(adaId, TONES);
  channels.forEach(({ inTones }, channel) => assert.ok(inTones[channel] > 0.8, JSON.stringify(channels)));
});

test("the green room, the air and off-air audio decide what the studio hears", async () => {
  const steps = [
    ["golive", "green-room", false],
    ["offair on", "off-air", true],
    ["offair off", "green-room", false],
    [`live ${adaId}`, "on-air", true],
    ["record", "recorded", true],
    [`greenroom ${adaId}`, "green-room", false],
    ["endshow", "green-room", true],
    [`live ${adaId}`, "standby", true],
  ];
  for (const [command, state, isHeard] of steps) {
    studio.say(command);
    await inState(ada, state);
    await studio.guests(`${command}: heard is ${isHeard}`, ({ level }) =>
      isHeard ? heard(level) : level === null,
    );
  }
});

test("a guest who was removed rings a second time, and is gone with the tab", async () => {
  const gone = studio.now;
  studio.say(`remove ${adaId}`);
  await inState(ada, "lobby");
  await says(ada, "#notice", /taken you out/);
  await studio.report("dropped", { dropped: adaId }, gone);
  await studio.report("joining", {}, gone);

  // The studio may have joined again before the page had left; so it is another name that rings.
  await ada.fill("#name", "Ada again");
  const second = await ringIn(ada, "Ada again");
  assert.notEqual(second, adaId);
  await studio.admit(second);
  await sees(second);
  const closed = studio.now;
  await ada.close();
  await studio.report("dropped", { dropped: second }, closed);
  await studio.clear();
});

test("two guests at once, one of them with a screen, outlive the service", async () => {
  ada = await browser.open(studio.link, { name: "Ada" });
  const bob = await browser.open(studio.link, { name: "Bob" });
  const ids = [await ringIn(ada, "Ada"), await ringIn(bob, "Bob")];
  await Promise.all(ids.map((id) => studio.admit(id)));

  const shared = studio.now;
  await bob.click("#share");
  const { ring: screen } = await studio.report("ring", { name: "Guest - Bob", screenShare: true }, shared);
  await says(bob, "#own", /asked to take your screen/);
  const { width } = await studio.admit(screen);
  assert.notEqual(width, CAMERA_SIZE.width);
  await says(bob, "#own", /host can see your screen/);
  const { quarters } = await studio.snapshot(screen);
  assert.ok(!quarters.every((colour, at) => alike(colour, QUARTERS[at].rgb)), "the screen is not the camera");
  for (const id of ids) await sees(id);

  const killed = studio.now;
  process.kill(studio.child("zarvo-guest-service"), "SIGKILL");
  await studio.report("serviceEnded", {}, killed);
  for (const id of [...ids, screen]) await studio.report("ring", { ring: id }, killed);
  await Promise.all([...ids, screen].map((id) => studio.admit(id)));
  for (const id of ids) await sees(id);

  const stopped = studio.now;
  await bob.click("#share");
  await studio.report("dropped", { dropped: screen }, stopped);
  await bob.click("#leave");
  await studio.report("dropped", { dropped: ids[1] }, stopped);
  await inState(ada, "green-room");
  assert.deepEqual(browser.faults, []);
});
