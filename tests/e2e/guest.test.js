// The guests' page in a real browser: its faults and their words, lost connections, and who can use it.

import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import { after, before, test } from "node:test";

import { inState, launch, ring, says, seriousFaults } from "./support/browser.js";
import { Cable } from "./support/cable.js";
import { Studio } from "./support/studio.js";

let studio, browser;

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--show", "off"), launch()]);
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

async function bringIn(page, name) {
  const after = studio.now;
  await ring(page);
  const { ring: id } = await studio.report("ring", { name: `Guest - ${name}` }, after);
  await studio.admit(id);
  await inState(page, "green-room");
  return id;
}

test("a wrong link, a refused camera and a server that is away are told apart", async () => {
  const [page, words] = studio.link.split("#");
  const room = new URLSearchParams(words).get("room");
  const links = [
    [page, /not complete/],
    [`${page}#room=elsewhere&token=x`, /not there, or is over/],
    [`${page}#room=${room}&token=x`, /not valid/],
  ];
  const guest = await browser.open("about:blank", { name: "Ada" });
  for (const [link, pattern] of links) {
    await guest.goto("about:blank");
    await guest.goto(link);
    if (link.includes("#")) await guest.click("#ring:enabled");
    await says(guest, "#fault", pattern);
  }
  assert.deepEqual(await seriousFaults(guest), []);

  const cable = await Cable.to(studio.link);
  await guest.goto(cable.link);
  await guest.waitForSelector("#ring:enabled");
  cable.close();
  await guest.click("#ring");
  await says(guest, "#fault", /cannot be reached/);
  await inState(guest, "lobby");
  await guest.context().close();

  const strict = await launch({ refusing: true });
  const refused = await strict.open(studio.link);
  await says(refused, "#fault", /not allowed to use the camera/);
  assert.equal(await refused.isEnabled("#ring"), false);
  assert.equal(await refused.isVisible("#retry"), true);
  await strict.close();
});

test("the keyboard alone rings, mutes, chats and leaves", async () => {
  const page = await browser.open(studio.link, { reducedMotion: "reduce" });
  await page.waitForSelector("#ring:enabled");
  const tabTo = async (id) => {
    for (let steps = 0; steps < 40; steps++) {
      if (await page.evaluate((id) => document.activeElement.id === id, id)) return;
      await page.keyboard.press("Tab");
    }
    assert.fail(`the Tab key never reaches #${id}`);
  };
  await tabTo("name");
  await page.keyboard.type("Zoë");
  await tabTo("ring");
  const rung = studio.now;
  await page.keyboard.press("Enter");
  await inState(page, "ringing");
  const { ring: id } = await studio.report("ring", { name: "Guest - Zoë" }, rung);
  await studio.admit(id);
  assert.equal(await page.evaluate(() => document.activeElement.id), "mute");
  const muted = studio.now;
  await page.keyboard.press("Space");
  await studio.report("hasAudioChanged", { hasAudio: false }, muted);
  await tabTo("chat-text");
  await page.keyboard.type("Hello");
  await page.keyboard.press("Enter");
  await studio.report("chat", { message: "Hello", name: "Zoë" }, muted);
  await page.keyboard.press("Shift+Tab");
  await tabTo("mute");
  await tabTo("leave");
  await page.keyboard.press("Enter");
  await inState(page, "lobby");
  assert.equal(await page.evaluate(() => document.activeElement.id), "ring");
  await studio.report("dropped", { dropped: id }, muted);
  await studio.clear();
  await page.context().close();
});

test("on air at desk and phone width, in light and dark, nothing is in anybody's way", async () => {
  const page = await browser.open(studio.link, { name: "Ada" });
  assert.deepEqual(await seriousFaults(page), []);
  const id = await bringIn(page, "Ada");
  studio.say(`live ${id}`);
  studio.say("golive");
  studio.say("comment Eve: Hello!");
  studio.say(
    `pref {"notice": "${"A long notice. ".repeat(20)}", "title": "${"Unbroken".repeat(14)}", "accent": "#ffee00"}`,
  );
  await inState(page, "on-air");
  await says(page, "#notice", /long notice/);
  await page.waitForSelector("#comments .said");
  await page.click("#settings");
  for (const [width, colorScheme] of [
    [1280, "light"],
    [375, "dark"],
    [375, "light"],
  ]) {
    await page.setViewportSize({ width, height: 740 });
    await page.emulateMedia({ colorScheme });
    assert.deepEqual(await seriousFaults(page), [], `${width} ${colorScheme}`);
    const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
    assert.ok(overflow <= 0, `${overflow} pixels too wide at ${width}`);
    if (process.env.ZARVO_PICTURES) {
      mkdirSync(process.env.ZARVO_PICTURES, { recursive: true });
      await page.screenshot({
        path: `${process.env.ZARVO_PICTURES}/page-${width}-${colorScheme}.png`,
        fullPage: true,
      });
    }
  }
  studio.say("endshow");
  await inState(page, "standby");

  // Another device in mid-show: the stream goes on under the same id.
  const [first, second] = await page
    .locator("#microphone option")
    .evaluateAll((all) => all.map(({ value }) => value));
  assert.ok(first && second);
  await page.selectOption("#microphone", second);
  await page.waitForFunction(
    (id) => document.querySelector("#self").srcObject.getAudioTracks()[0]?.getSettings().deviceId === id,
    second,
  );
  await studio.guests("the other microphone is heard", ({ level }) => level > -60);

  // A reload in mid-show: the old stream is gone, and the guest rings again under the kept name.
  const reloaded = studio.now;
  await page.reload();
  await studio.report("dropped", { dropped: id }, reloaded);
  const again = await bringIn(page, "Ada");
  assert.notEqual(again, id);
  const closed = studio.now;
  await page.context().close();
  await studio.report("dropped", { dropped: again }, closed);
  await studio.clear();
});

test("a ring that fails on the way is tried again", async () => {
  const page = await browser.open("about:blank", { name: "Ada" });
  let connections = 0;
  await page.routeWebSocket(/janus/, (socket) =>
    ++connections === 1 ? socket.close() : socket.connectToServer(),
  );
  await page.goto(studio.link);
  await bringIn(page, "Ada");
  assert.equal(connections, 2);
  await page.context().close();
  await studio.clear();
});

test("a guest on air stays there over a lost connection", async () => {
  const cable = await Cable.to(studio.link);
  const page = await browser.open(cable.link, { name: "Eve" });
  const id = await bringIn(page, "Eve");
  const cut = studio.now;
  cable.cut();
  await inState(page, "lost");
  cable.mend();
  await inState(page, "green-room");
  studio.say(`live ${id}`);
  await inState(page, "standby");
  await studio.guests("the guest is seen and heard", ({ guests, level }) => guests[0].fps > 5 && level > -60);
  assert.equal(
    studio.reports.slice(cut).some(({ event }) => event === "dropped" || event === "ring"),
    false,
  );
  cable.close();
  await inState(page, "lost");
  const left = studio.now;
  await page.context().close();
  await studio.report("dropped", { dropped: id }, left);
  await studio.clear();
});
