// The guests' page in a real browser: its faults and their words, what gets lost, and who can use it.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import {
  CAMERA_SIZE,
  comeIn,
  inState,
  launch,
  ringIn,
  says,
  seesCamera,
  seriousFaults,
} from "./support/browser.js";
import { Cable } from "./support/cable.js";
import { areCameras } from "./support/content.js";
import { Studio, isHeard } from "./support/studio.js";

const PICTURE = "videotestsrc is-live=true ! video/x-raw,width=320,height=180,framerate=10/1 ! identity";

let studio, browser;

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--show", "off"), launch()]);
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

const showComes = (page) => page.waitForFunction(() => document.querySelector("#show").videoWidth > 0);

test("a guest who cannot ring is told why, and a ring that fails on the way is tried again", async () => {
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

  let connections = 0;
  await guest.routeWebSocket(/janus/, (socket) =>
    ++connections === 1 ? socket.close() : socket.connectToServer(),
  );
  await guest.goto(studio.link);
  await comeIn(guest, studio, "Ada");
  assert.equal(connections, 2);
  await guest.context().close();
  await studio.clear();

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
  const id = await comeIn(page, studio, "Ada");
  studio.say(`live ${id}`);
  studio.say("golive");
  studio.say("comment Eve: Hello!");
  const [notice, title] = ["A long notice. ".repeat(20), "Unbroken".repeat(14)];
  studio.say(`pref ${JSON.stringify({ notice, title, accent: "#ffee00" })}`);
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
  }
  studio.say("endshow");
  await inState(page, "standby");

  // Another device in mid-show: the stream goes on under the same id.
  const second = await page.locator("#microphone option").nth(1).getAttribute("value");
  await page.selectOption("#microphone", second);
  await page.waitForFunction(
    (id) => document.querySelector("#self").srcObject.getAudioTracks()[0]?.getSettings().deviceId === id,
    second,
  );
  await studio.guests("the other microphone is heard", isHeard);

  // A reload in mid-show: the old stream is gone, and the guest rings again under the kept name.
  const reloaded = studio.now;
  await page.reload();
  await studio.report("dropped", { dropped: id }, reloaded);
  const again = await comeIn(page, studio, "Ada");
  assert.notEqual(again, id);
  const closed = studio.now;
  await page.context().close();
  await studio.report("dropped", { dropped: again }, closed);
  await studio.clear();
});

test("on a phone the guest sees what matters without a search", async () => {
  const page = await browser.open(studio.link, { name: "Ada", viewport: { width: 390, height: 844 } });
  const inSight = (selector) =>
    page.waitForFunction((selector) => {
      const { top, bottom, height } = document.querySelector(selector).getBoundingClientRect();
      return height > 0 && top >= 0 && bottom <= innerHeight;
    }, selector);
  await page.waitForSelector("#ring:enabled");
  for (const selector of ["#name", "#ring"]) await inSight(selector);
  await page.locator("#mono").scrollIntoViewIfNeeded();
  const id = await ringIn(page, studio, "Ada");
  for (const selector of ["#status", "#self", "#show-wait", "#mute", "#leave"]) await inSight(selector);
  await page.focus("#chat-text");
  await studio.admit(id);
  for (const command of [`live ${id}`, "golive", `mute ${id}`]) studio.say(command);
  await says(page, "#status", /On air, muted.*Everyone can see you. Nobody can hear you/s);
  await inSight("#status");
  const removed = studio.now;
  for (const command of ["endshow", `remove ${id}`]) studio.say(command);
  await says(page, "#notice", /taken you out/);
  for (const selector of ["#notice", "#ring"]) await inSight(selector);
  await studio.report("joining", {}, removed);
  await page.context().close();
});

test("a guest is told what of them does not reach the show, and when the show is gone", async () => {
  assert.equal((await studio.ask(`show ${PICTURE}`, "show")).state, "playing");
  const page = await browser.open(studio.link, { name: "Ada" });
  await page.waitForSelector("#ring:enabled");
  // A browser that sends no pictures of the kind that the room takes.
  await page.evaluate(() => {
    const { addTransceiver } = RTCPeerConnection.prototype;
    RTCPeerConnection.prototype.addTransceiver = function (track, init) {
      const made = addTransceiver.call(this, track, init);
      const { codecs } = RTCRtpSender.getCapabilities(track.kind);
      made.setCodecPreferences(codecs.filter(({ mimeType }) => mimeType !== "video/VP8"));
      return made;
    };
  });
  const first = await ringIn(page, studio, "Ada");
  await says(page, "#own", /cannot take your browser's pictures/);
  for (const command of [`admit ${first}`, `live ${first}`, "golive"]) studio.say(command);
  await inState(page, "on-air");
  await says(page, "#status", /On air, no picture.*can hear you. Nobody can see you/s);
  await page.reload();

  const id = await ringIn(page, studio, "Ada");
  assert.equal(await page.isVisible("#show"), false, "who only rings does not see the show");
  await studio.admit(id);
  await showComes(page);
  studio.say(`live ${id}`);
  await says(page, "#status", /On air.*Everyone can see and hear you/s);
  const service = studio.child("zarvo-guest-service");
  process.kill(service, "SIGSTOP");
  await says(page, "#status", /Nothing comes from the studio.*Perhaps nobody can see/s);
  process.kill(service, "SIGCONT");
  await inState(page, "on-air");

  // The camera is pulled out, and there is no other.
  const gone = (track) => (track.stop(), track.dispatchEvent(new Event("ended")));
  await page.evaluate(() => (navigator.mediaDevices.getUserMedia = () => Promise.reject(new Error("none"))));
  await page.evaluate(`(${gone})(document.querySelector("#self").srcObject.getVideoTracks()[0])`);
  await says(page, "#status", /On air, no picture/);
  await says(page, "#own", /camera is switched off or has gone/);
  for (const command of ["show off", "endshow"]) studio.say(command);
  await page.context().close();
  await studio.clear();
});

test("a guest who floods the chat keeps neither the host's mute nor others' lines from a page", async () => {
  const [ada, bob] = await Promise.all(["Ada", "Bob"].map((name) => browser.open(studio.link, { name })));
  await bob.waitForSelector("#ring:enabled");
  await bob.evaluate(async () => {
    const { Signals } = await import("./signals.js");
    const { open } = Signals.prototype;
    Signals.prototype.open = function (...where) {
      window.signals = this;
      return open.apply(this, where);
    };
  });
  const id = await comeIn(ada, studio, "Ada");
  await ringIn(bob, studio, "Bob");
  await bob.evaluate(() => {
    for (let line = 1; line <= 3000; line++) {
      window.signals.send("chat", JSON.stringify({ name: "Bob", text: `Line ${line}`, uuid: `bob-${line}` }));
      window.signals.send("fav", JSON.stringify({ uuid: `bob-${line}`, state: "yes" }));
    }
  });
  await says(ada, "#chat", /Line 1.*some are left out/s);
  studio.say(`mute ${id}`);
  await says(ada, "#own", /host has switched your microphone off/);
  const { uuid } = await studio.ask("chat Host: Calm, please", "chatSent");
  await ada.waitForSelector(`#chat [data-uuid="${uuid}"]`);
  const lines = await ada.locator("#chat .said").count();
  assert.ok(lines < 200, `${lines} lines are shown`);
  await Promise.all([ada, bob].map((page) => page.context().close()));
  await studio.clear();
});

test("a guest on air stays there over a lost connection", async () => {
  const cable = await Cable.to(studio.link);
  const page = await browser.open(cable.link, { name: "Eve" });
  const id = await comeIn(page, studio, "Eve");
  const cut = studio.now;
  cable.cut();
  await inState(page, "lost");
  cable.mend();
  await inState(page, "green-room");
  studio.say(`live ${id}`);
  await inState(page, "standby");
  await studio.guests("seen and heard", (table) => table.guests[0].fps > 5 && isHeard(table));
  const since = studio.reports.slice(cut).map(({ event }) => event);
  assert.ok(!since.includes("dropped") && !since.includes("ring"), since.join());
  cable.close();
  await inState(page, "lost");
  const left = studio.now;
  await page.context().close();
  await studio.report("dropped", { dropped: id }, left);
  await studio.clear();
});

test("a guest with a screen outlives the service", async () => {
  const page = await browser.open(studio.link, { name: "Bob" });
  const camera = await comeIn(page, studio, "Bob");
  const shared = studio.now;
  await page.click("#share");
  const { ring: screen } = await studio.report("ring", { name: "Guest - Bob", screenShare: true }, shared);
  await says(page, "#own", /asked to take your screen/);
  const { width } = await studio.admit(screen);
  assert.notEqual(width, CAMERA_SIZE.width);
  await says(page, "#own", /host can see your screen/);
  const { quarters } = await studio.snapshot(screen);
  assert.ok(!areCameras(quarters), "the screen is not the camera");

  const killed = studio.now;
  process.kill(studio.child("zarvo-guest-service"), "SIGKILL");
  await studio.report("serviceEnded", {}, killed);
  // Both are put back where they were.
  for (const id of [camera, screen]) await studio.report("frame", { id }, killed);
  await seesCamera(studio, camera);

  const stopped = studio.now;
  await page.click("#share");
  await studio.report("dropped", { dropped: screen }, stopped);
  await page.click("#leave");
  await studio.report("dropped", { dropped: camera }, stopped);

  // The service that was killed may still be listed: what the page receives is the show of the other one.
  assert.equal((await studio.ask(`show ${PICTURE}`, "show")).state, "playing");
  await comeIn(page, studio, "Bob");
  await showComes(page);
});
