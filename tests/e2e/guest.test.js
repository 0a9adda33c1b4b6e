// The guests' page in a real browser: its faults and their words, what gets lost, and who can use it.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { setTimeout as pause } from "node:timers/promises";

import {
  CAMERA_SIZE,
  comeIn,
  inState,
  launch,
  listenIn,
  ringIn,
  says,
  seesCamera,
  seriousFaults,
} from "./support/browser.js";
import { Cable } from "./support/cable.js";
import { Studio, isHeard, isSilent } from "./support/studio.js";

const PICTURE = "videotestsrc is-live=true ! video/x-raw,width=320,height=180,framerate=10/1 ! identity";

let studio, browser;

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--show", "off", "--frames"), launch()]);
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

/** The program's service, and the one that waits for the next guest once each of the present ones has theirs. */
async function services(guests) {
  for (;;) {
    const all = studio.children("zarvo-guest-service");
    if (all.length === guests + 2) return { program: all[0], spare: all.at(-1) };
    await pause(50);
  }
}
const showComes = (page) => page.waitForFunction(() => document.querySelector("#show").videoWidth > 0);

test("a guest who cannot ring is told why, and a ring that fails on the way is tried again", async (t) => {
  const small = await Studio.start("--show", "off", "--seats", "1");
  t.after(() => small.close());
  const other = await browser.open(small.link, { name: "Bob" });
  const bob = await ringIn(other, small, "Bob");
  const { link } = await small.ask("invite", "invitation"); // the one before is good no longer
  const links = [
    [small.link.split("#")[0], /not complete/],
    [small.link, /invitation is not valid/],
    [link, /show is full/],
  ];
  const guest = await browser.open("about:blank", { name: "Ada" });
  for (const [link, pattern] of links) {
    await guest.goto("about:blank");
    await guest.goto(link);
    if (link.includes("#")) await guest.click("#ring:enabled");
    await says(guest, "#fault", pattern);
  }
  assert.deepEqual(await seriousFaults(guest), []);
  await inState(other, "ringing");
  await small.ask(`remove ${bob}`, "gone", { guest: bob });
  await comeIn(guest, small, "Ada");

  const cable = await Cable.to(studio.link);
  await guest.goto(cable.link);
  await guest.waitForSelector("#ring:enabled");
  cable.close();
  await guest.click("#ring");
  await says(guest, "#fault", /cannot be reached/);
  await inState(guest, "lobby");

  const ways = [];
  await guest.routeWebSocket(/lobby|janus/, (socket) => {
    const isFirst = !ways.includes(socket.url());
    ways.push(socket.url());
    if (isFirst) socket.close();
    else socket.connectToServer();
  });
  await guest.goto(studio.link);
  await comeIn(guest, studio, "Ada");
  assert.ok(ways.length >= 4);
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
  const { guest } = await studio.report("ring", { name: "Zoë" }, rung);
  await studio.admit(guest);
  assert.equal(await page.evaluate(() => document.activeElement.id), "mute");
  const muted = studio.now;
  await page.keyboard.press("Space");
  await studio.report("guest", { guest, microphone: "off" }, muted);
  await tabTo("chat-text");
  await page.keyboard.type("Hello");
  await page.keyboard.press("Enter");
  await studio.report("chat", { guest, message: "Hello", name: "Zoë" }, muted);
  await page.keyboard.press("Shift+Tab");
  await tabTo("mute");
  await tabTo("leave");
  await page.keyboard.press("Enter");
  await inState(page, "lobby");
  assert.equal(await page.evaluate(() => document.activeElement.id), "ring");
  await studio.report("gone", { guest }, muted);
  await page.context().close();
});

test("on air at desk and phone width, in light and dark, nothing is in anybody's way", async () => {
  const page = await browser.open(studio.link, { name: "Ada" });
  const guest = await comeIn(page, studio, "Ada");
  for (const command of [`live ${guest}`, "golive", "comment Eve: Hello!"]) studio.say(command);
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
  await studio.guest(guest, "the other microphone is heard", isHeard);

  // After a reload, and on ringing in a new tab, the guest is back in the show and muted, without a hand.
  const isBack = async (page) => {
    await says(page, "#own", /host has switched your microphone off/);
    await inState(page, "standby");
  };
  const reloaded = studio.now;
  studio.say(`mute ${guest}`);
  await page.reload();
  await isBack(page);
  const closed = studio.now;
  await page.close();
  await studio.report("guest", { guest, state: "away" }, closed);
  const tab = await page.context().newPage();
  await tab.goto(studio.link);
  await tab.click("#ring:enabled");
  await isBack(tab);
  await seesCamera(studio, guest);
  assert.ok(!studio.reports.slice(reloaded).some(({ event }) => event === "ring"));
  await tab.context().close();
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
  const guest = await ringIn(page, studio, "Ada");
  for (const selector of ["#status", "#self", "#show-wait", "#mute", "#leave"]) await inSight(selector);
  await page.focus("#chat-text");
  await studio.admit(guest);
  for (const command of [`live ${guest}`, "golive", `mute ${guest}`]) studio.say(command);
  await says(page, "#status", /On air, muted.*Everyone can see you. Nobody can hear you/s);
  await inSight("#status");
  studio.say("endshow");
  await studio.ask(`remove ${guest}`, "gone", { guest });
  await says(page, "#notice", /taken you out/);
  for (const selector of ["#notice", "#ring"]) await inSight(selector);
  await page.context().close();
});

test("a guest is told what of them does not reach the show, and when the show is gone", async () => {
  await studio.ask(`show ${PICTURE}`, "show", { state: "playing" });
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
  const { spare: service } = await services(0);
  const guest = await ringIn(page, studio, "Ada");
  await says(page, "#own", /cannot take your browser's pictures/);
  assert.equal(await page.isVisible("#show"), false, "who only rings does not see the show");
  for (const command of [`admit ${guest}`, `live ${guest}`, "golive"]) studio.say(command);
  await inState(page, "on-air");
  await says(page, "#status", /On air, no picture.*can hear you. Nobody can see you/s);
  await page.reload();
  await showComes(page);
  await says(page, "#status", /On air.*Everyone can see and hear you/s);
  // What has never begun is not missed.
  await page.waitForFunction(() => document.querySelector("#sound").currentTime > 3);
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
  await studio.report("guest", { guest, camera: "lost" });
  for (const command of ["show off", "endshow"]) studio.say(command);
  await page.context().close();
  await studio.clear();
});

test("a guest who floods the chat keeps neither the host's mute nor others' lines from a page", async () => {
  const [ada, bob] = await Promise.all(["Ada", "Bob"].map((name) => browser.open(studio.link, { name })));
  await bob.waitForSelector("#ring:enabled");
  await listenIn(bob);
  const guest = await comeIn(ada, studio, "Ada");
  const other = await comeIn(bob, studio, "Bob");
  await bob.evaluate(() => {
    for (let line = 1; line <= 3000; line++) {
      window.signals.send("chat", JSON.stringify({ name: "Bob", text: `Line ${line}`, uuid: `bob-${line}` }));
      window.signals.send("fav", JSON.stringify({ uuid: `bob-${line}`, state: "yes" }));
    }
  });
  await Promise.all([says(ada, "#chat", /Line 1/), says(bob, "#chat", /some are left out/)]);
  studio.say(`mute ${guest}`);
  await says(ada, "#own", /host has switched your microphone off/);
  await studio.guest(guest, "this one is muted", isSilent);
  await studio.guest(other, "and not that one", isHeard);
  const { uuid } = await studio.ask("chat Host: Calm, please", "chatSent");
  for (const page of [ada, bob]) {
    await page.waitForSelector(`#chat [data-uuid="${uuid}"]`);
    const lines = await page.locator("#chat .said").count();
    assert.ok(lines < 200, `${lines} lines are shown`);
  }
  await studio.report("talkLeftOut");
  await Promise.all([ada, bob].map((page) => page.context().close()));
  await studio.clear();
});

test("a guest on air stays there over a lost connection", async () => {
  const cable = await Cable.to(studio.link);
  const page = await browser.open(cable.link, { name: "Eve" });
  const guest = await comeIn(page, studio, "Eve");
  const cut = studio.now;
  cable.cut();
  await inState(page, "lost");
  cable.mend();
  await inState(page, "green-room");
  studio.say(`live ${guest}`);
  await inState(page, "standby");
  await studio.guest(guest, "seen and heard", (row) => row.fps > 5 && isHeard(row));
  const since = studio.reports.slice(cut).filter(({ event, state }) => event === "ring" || state === "away");
  assert.deepEqual(since, []);
  cable.close();
  await page.context().close();
  await studio.report("guest", { guest, state: "away" }, cut);
  await studio.clear();
});

test("whose service ends is put back with a screen, the show likewise, and nobody else notices", async () => {
  await studio.ask(`show ${PICTURE}`, "show", { state: "playing" });
  const ada = await browser.open(studio.link, { name: "Ada" });
  const unharmed = await comeIn(ada, studio, "Ada");
  const page = await browser.open(studio.link, { name: "Bob" });
  const { program, spare: service } = await services(1);
  const guest = await comeIn(page, studio, "Bob");
  studio.say(`live ${guest}`);
  const shared = studio.now;
  await page.click("#share");
  const { width } = await studio.report("frame", { guest, screen: true }, shared);
  assert.notEqual(width, CAMERA_SIZE.width);
  await says(page, "#own", /screen is in the show/);
  await Promise.all([showComes(page), showComes(ada)]);
  const shown = await ada.evaluate(() => document.querySelector("#show").srcObject.id);

  const killed = studio.now;
  for (const each of [program, service]) process.kill(each, "SIGKILL");
  for (const lost of [0, guest]) await studio.report("serviceLost", { guest: lost }, killed);
  const back = studio.reports.indexOf(await studio.report("serviceBack", { guest }, killed));
  for (const screen of [false, true]) await studio.report("frame", { guest, screen }, back);
  await seesCamera(studio, guest);
  await inState(page, "standby");
  await says(page, "#own", /screen is in the show/);
  await ada.waitForFunction((shown) => document.querySelector("#show").srcObject?.id !== shown, shown);
  await showComes(ada);
  const others = studio.reports.slice(killed).filter(({ guest }) => guest === unharmed);
  const gone = others.filter(({ event }) => !["frame", "log"].includes(event));
  const frames = others.filter(({ event }) => event === "frame");
  const gaps = frames.filter(({ num }, at) => at > 0 && num !== frames[at - 1].num + 1);
  assert.deepEqual([gone, gaps, frames.length > 5], [[], [], true]);

  const stopped = studio.now;
  await page.click("#share");
  await studio.report("guest", { guest, screen: false }, stopped);
});
