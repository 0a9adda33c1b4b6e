// A whole show: two guests, one of them with a screen, every command of the prompt, and what goes wrong in
// shows. SHOW_MINUTES sets how long it runs; rounds of the same show go on until then.

import assert from "node:assert/strict";
import { readFileSync, readdirSync } from "node:fs";
import { after, before, test } from "node:test";
import { setTimeout as pause } from "node:timers/promises";

import { CAMERA_SIZE, TONES, inState, launch, ring, says, seesCamera } from "./support/browser.js";
import { alike } from "./support/content.js";
import { DEADLINE, Studio, isHeard, isSilent } from "./support/studio.js";

const LENGTH = Number(process.env.SHOW_MINUTES ?? 1) * 60_000;
const SIZE = { width: 640, height: 360 };

const size = ({ width, height }, fps) => `video/x-raw,width=${width},height=${height},framerate=${fps}/1`;
const filled = ([red, green, blue]) =>
  `pattern=solid-color foreground-color=${0xff000000 + red * 65_536 + green * 256 + blue}`;
const picture = (what, dimensions = SIZE, fps = 30) =>
  `videotestsrc is-live=true ${what} ! ${size(dimensions, fps)} ! identity`;
const plain = (rgb, hertz) => `${picture(filled(rgb))} audiotestsrc is-live=true freq=${hertz} volume=0.5`;
const RED = { rgb: [200, 30, 30], hertz: 520 };
const BLUE = { rgb: [32, 64, 192], hertz: 880 };

let browser, studio;
before(async () => (browser = await launch()));
after(() => browser?.close());

async function open(context, show, options) {
  const words = Object.entries(options).map(([name, value]) => `--${name}=${value}`);
  studio = await Studio.start("--no-log", "--show", show, ...words);
  context.after(() => studio.close());
}

// ---- What is to be seen and heard --------------------------------------------

async function until(what, fits) {
  for (const end = Date.now() + DEADLINE; !fits(); await pause(50))
    assert.ok(Date.now() < end, `never: ${what}`);
}

/**
 * Looks at so many of the show's frames as the page paints them: how many came in a second, painted or not,
 * how many of those painted are not of one colour, and how many are dark and bright in their middle; `rgb` is
 * the last one's.
 */
function look(page, frames) {
  return page.evaluate(
    async ([frames, patience]) => {
      const show = document.querySelector("#show");
      const canvas = new OffscreenCanvas(1, 1);
      const context = canvas.getContext("2d", { willReadFrequently: true });
      const found = { mixed: 0, dark: 0, bright: 0 };
      const arrived = () => show.getVideoPlaybackQuality().totalVideoFrames;
      let first, before;
      for (let count = 0; count <= frames; count++) {
        await new Promise((resolve, reject) => {
          show.requestVideoFrameCallback(resolve);
          setTimeout(() => reject(new Error(`no frame of the show after ${count}`)), patience);
        });
        first ??= performance.now();
        before ??= arrived();
        const { videoWidth: width, videoHeight: height } = show;
        if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
        context.drawImage(show, 0, 0);
        const { data } = context.getImageData(0, 0, width, height);
        const at = (x, y) => (Math.floor(y) * width + Math.floor(x)) * 4;
        const middle = at(width / 2, height / 2);
        let [least, most] = [255, 0];
        for (let y = 0; y < height; y++) {
          for (let part = 0.05; part < 1; part += 0.1) {
            const green = data[at(width * part, y) + 1];
            least = Math.min(least, green);
            most = Math.max(most, green);
          }
        }
        if (most - least > 64) found.mixed++;
        else if (most < 64) found.dark++;
        else if (least > 191) found.bright++;
        Object.assign(found, { width, height, rgb: [...data.subarray(middle, middle + 3)] });
      }
      return { ...found, fps: ((arrived() - before) * 1000) / (performance.now() - first) };
    },
    [frames, DEADLINE],
  );
}

/** Resolves when the show is of that colour at the guest, and sounds at that pitch. */
async function shows(page, { rgb, hertz }) {
  for (const end = Date.now() + DEADLINE; ;) {
    const seen = await look(page, 1);
    if (alike(seen.rgb, rgb)) break;
    assert.ok(Date.now() < end, `the show is ${seen.rgb}, not ${rgb}`);
  }
  if (!hertz) return;
  const loudest = await page.evaluate(
    async ([hertz, patience]) => {
      const context = new AudioContext();
      const analyser = new AnalyserNode(context, { fftSize: 8192, smoothingTimeConstant: 0 });
      context.createMediaStreamSource(document.querySelector("#show").srcObject).connect(analyser);
      const bins = new Float32Array(analyser.frequencyBinCount);
      let tone = 0;
      for (const end = Date.now() + patience; Date.now() < end && Math.abs(tone - hertz) > 10;) {
        await new Promise((done) => setTimeout(done, 100));
        analyser.getFloatFrequencyData(bins);
        const at = bins.indexOf(Math.max(...bins));
        if (bins[at] > -40) tone = (at * context.sampleRate) / analyser.fftSize;
      }
      await context.close();
      return tone;
    },
    [hertz, DEADLINE],
  );
  assert.ok(Math.abs(loudest - hertz) <= 10, `the show sounds at ${loudest} Hz, not at ${hertz}`);
}

/** By how many MB the process may grow. A sanitizer holds on to what is freed, and finds what is not. */
const growth = (pid, bound) =>
  /lib[at]san/.test(readFileSync(`/proc/${pid}/maps`, "utf8")) ? Infinity : bound;

/** What the process holds: memory in MB, open files, threads. */
function held(pid) {
  const [, kilobytes] = readFileSync(`/proc/${pid}/status`, "utf8").match(/VmRSS:\s+(\d+)/);
  const count = (what) => readdirSync(`/proc/${pid}/${what}`).length;
  return { memory: Math.round(kilobytes / 1024), files: count("fd"), threads: count("task") };
}
const service = () => studio.child("zarvo-guest-service");

// ---- The guests --------------------------------------------------------------

const pages = {};
let ids = {};

/** Brings a ringing guest in and sees their picture at the studio. */
async function bringIn(id, isCamera = true) {
  studio.say(`admit ${id}`);
  const isSeen = (row) => row.id === id && row.fps > 0;
  await studio.guests("the guest is seen", ({ guests }) => guests.some(isSeen));
  if (isCamera) await seesCamera(studio, id);
  else assert.notEqual((await studio.snapshot(id)).width, CAMERA_SIZE.width);
}

/** The id of whoever rings under that name, and has not been here under one of the `known` ids. */
async function ringer(name, screenShare, known) {
  const fits = (row) =>
    row.state === "ringing" &&
    row.name === `Guest - ${name}` &&
    row.screenShare === screenShare &&
    !known.includes(row.id);
  const { guests } = await studio.guests(`${name} rings`, ({ guests }) => guests.some(fits));
  return guests.findLast(fits).id;
}

/** Brings both guests and the screen in as they ring, and sees and hears the show go both ways. */
async function bringAllIn(known = []) {
  ids = {
    ada: await ringer("Ada", false, known),
    bob: await ringer("Bob", false, known),
    screen: await ringer("Bob", true, known),
  };
  await bringIn(ids.ada);
  await bringIn(ids.bob);
  await bringIn(ids.screen, false);
  await flows();
}

/** Frames go both ways. */
async function flows() {
  await Promise.all(Object.values(pages).map((page) => look(page, 10)));
  await studio.guests("frames come from all", ({ guests }) =>
    guests.filter(({ id }) => [ids.ada, ids.bob].includes(id)).every(({ fps }) => fps > 3),
  );
}

async function ringAll() {
  const known = Object.values(ids);
  await Promise.all(Object.values(pages).map(ring));
  await pages.bob.click("#share:enabled");
  await says(pages.bob, "#share", /^Stop sharing$/);
  await bringAllIn(known);
}

// ---- The show's course -------------------------------------------------------

/** One round of an ordinary show, with every command that does not end it. */
async function round(number) {
  const { ada, bob } = pages;
  for (const show of [RED, BLUE]) {
    assert.equal((await studio.ask(`show ${plain(show.rgb, show.hertz)}`, "show")).state, "playing");
    await Promise.all([shows(ada, show), shows(bob, { rgb: show.rgb })]);
  }
  const air = [
    ["endshow", "green-room", "green-room"],
    [`live ${ids.ada}`, "standby", "green-room"],
    ["golive", "on-air", "green-room"],
    ["offair on", "on-air", "off-air"],
    ["offair off", "on-air", "green-room"],
    ["record", "recorded", "green-room"],
  ];
  for (const [command, first, second] of air) {
    studio.say(command);
    await Promise.all([inState(ada, first), inState(bob, second)]);
  }
  // Ada alone is heard now.
  await studio.guests("Ada is heard", isHeard);
  const channels = await studio.listen(ids.ada, TONES);
  channels.forEach((parts, at) => assert.ok(parts[at] > 0.7, JSON.stringify(channels)));
  studio.say(`mute ${ids.ada}`);
  await studio.guests("Ada is silent", isSilent);
  studio.say(`unmute ${ids.ada}`);
  await studio.guests("Ada is heard again", isHeard);

  studio.say(`viewers ${number}`);
  studio.say(`pref {"title": "Round ${number}"}`);
  const { uuid } = await studio.ask(`comment Eve: Round ${number}`, "commentSent");
  studio.say(`fav ${uuid} on`);
  const line = await studio.ask(`chat Host: Round ${number}`, "chatSent");
  const title = new RegExp(`^Round ${number}$`);
  for (const page of [ada, bob]) {
    await says(page, "#viewers", new RegExp(`^${number} watching$`));
    await says(page, "#title", title);
    await says(page, `#comments [data-uuid="${uuid}"] .what`, title);
    await says(page, `#comments [data-uuid="${uuid}"] .star`, /★/);
    await says(page, `#chat [data-uuid="${line.uuid}"] .what`, title);
  }
  await bob.fill("#chat-text", `Bob's ${number}`);
  await bob.press("#chat-text", "Enter");
  await says(ada, "#chat", new RegExp(`Bob's ${number}`));

  const read = studio.notes.length;
  for (const command of ["log on", "help", "link", "show", "help admit", "nonsense", "log off"])
    studio.say(command);
  assert.equal((await studio.ask("there", "there")).alive, true);
  const answers = [
    "record-audio ID SECONDS FILE",
    studio.link,
    "The show: videotestsrc",
    "admit ID - ",
    'no command "nonsense"',
  ];
  for (const words of answers) await until(`noted "${words}"`, () => studio.notes.includes(words, read));
  studio.say(`greenroom ${ids.ada}`);
  await inState(ada, "green-room");
  studio.say("endshow");
  await flows();
}

/** Pictures whose whole colour changes with each frame arrive whole. */
async function tearing() {
  studio.say(`show ${picture("pattern=blink")}`);
  const [first, second] = await Promise.all(Object.values(pages).map((page) => look(page, 150)));
  for (const { mixed, dark, bright } of [first, second]) {
    assert.equal(mixed, 0, `of dark ${dark} and bright ${bright}`);
    assert.ok(dark > 20 && bright > 20, `dark ${dark}, bright ${bright}`);
  }
}

/** A source that changes its size, ends, stalls, or is none. */
async function sources() {
  const green = [30, 180, 30];
  const part = (rgb, dimensions) =>
    `videotestsrc num-buffers=45 ${filled(rgb)} ! ${size(dimensions, 30)} ! parts.`;
  let from = studio.now;
  studio.say(
    `show concat name=parts ! identity ${part(BLUE.rgb, SIZE)} ${part(green, { width: 320, height: 180 })}`,
  );
  await studio.report("show", { state: "ended" }, from);
  // The last picture stays.
  await Promise.all(Object.values(pages).map((page) => shows(page, { rgb: green })));
  const seen = await look(pages.ada, 1);
  assert.deepEqual({ width: seen.width, height: seen.height }, SIZE);

  from = studio.now;
  studio.say(`show ${picture(filled(RED.rgb))} sleep-time=1500000`);
  await studio.report("show", { state: "stalled" }, from);
  await studio.report("show", { state: "goes on" }, from);
  await shows(pages.bob, { rgb: RED.rgb });
  assert.equal((await studio.ask("show no/such/file", "show")).state, "refused");
  assert.equal((await studio.ask(`show ${plain(BLUE.rgb, BLUE.hertz)}`, "show")).state, "playing");
  await Promise.all(Object.values(pages).map((page) => shows(page, BLUE)));
}

/** The session server hangs for a while, and then dies; the session is left. */
async function losses() {
  const hung = studio.now;
  const janus = studio.child("janus");
  process.kill(janus, "SIGSTOP");
  await pause(4_000); // as long as it hangs
  process.kill(janus, "SIGCONT");
  await flows();
  const since = studio.reports.slice(hung).map(({ event }) => event);
  assert.ok(!since.includes("dropped") && !since.includes("serviceEnded"), since.join());

  const killed = studio.now;
  process.kill(janus, "SIGKILL");
  await studio.report("sessionServerEnded", {}, killed);
  await studio.report("joining", {}, killed);
  await bringAllIn(Object.values(ids));

  studio.say("stop");
  await Promise.all(Object.values(pages).map((page) => inState(page, "ringing")));
  studio.say("rejoin");
  await bringAllIn();
}

/** All guests are taken out, the last one while frames flow both ways. */
async function removals() {
  const { guests } = await studio.ask("guests", "guests");
  const gone = guests.filter(({ state }) => state === "gone");
  for (const id of [...gone.map(({ id }) => id), ids.screen, ids.bob]) studio.say(`remove ${id}`);
  await inState(pages.bob, "lobby");
  await inState(pages.ada, "green-room");
  await look(pages.ada, 5);
  const last = studio.now;
  studio.say(`remove ${ids.ada}`);
  await inState(pages.ada, "lobby");
  await says(pages.ada, "#notice", /taken you out/);
  await studio.report("dropped", { dropped: ids.ada }, last);
  await studio.report("joining", {}, last);
}

test("a show with two guests and a screen holds, whatever happens in it", async (context) => {
  await open(context, plain(RED.rgb, RED.hertz), SIZE);
  const start = Date.now();
  const pid = service();
  const memory = () => ({ service: held(service()).memory, studio: held(studio.pid).memory });
  const figures = (what) => {
    const minutes = ((Date.now() - start) / 60_000).toFixed(1);
    context.diagnostic(`${minutes} min, ${what}: MB ${JSON.stringify(memory())}`);
  };
  for (const name of ["Ada", "Bob"]) pages[name.toLowerCase()] = await browser.open(studio.link, { name });
  await ringAll();
  figures("all in");
  let number = 1;
  const steps = [() => round(number++), tearing, sources, losses, removals, ringAll, () => round(number++)];
  for (const step of steps) {
    await step();
    figures(step.name || `round ${number - 1}`);
  }
  const before = memory();
  while (Date.now() - start < LENGTH) {
    await round(number++);
    const rates = (await studio.ask("guests", "guests")).guests.map(({ fps }) => Math.round(fps)).join(", ");
    const shown = Math.round((await look(pages.ada, 30)).fps);
    figures(`round ${number - 1}, show ${shown} and guests ${rates} frames a second`);
  }
  assert.equal(service(), pid, "the service has been the same all the time");
  for (const [who, now] of Object.entries(memory()))
    assert.ok(now < before[who] + growth(pid, 30), `${who}: ${before[who]} MB, then ${now} MB`);
  await removals();
  const faults = browser.faults.filter((text) => !/WebSocket connection|ERR_|Failed to load/.test(text));
  assert.deepEqual(faults, []);
  await Promise.all(Object.values(pages).map((page) => page.context().close()));
});

/** One guest in a show of small pictures that are dark and bright by turns. */
async function small(context, fps) {
  const options = { width: 320, height: 180, fps };
  await open(context, picture("pattern=blink", options, fps), options);
  const page = await browser.open(studio.link, { name: "Ada" });
  context.after(() => page.context().close());
  await ring(page);
  const id = await ringer("Ada", false, []);
  await bringIn(id);
  return { page, id };
}

for (const fps of [5, 120]) {
  test(`a show of ${fps} frames a second reaches the guest`, async (context) => {
    const { page } = await small(context, fps);
    await look(page, 10);
    const seen = await look(page, Math.min(fps * 4, 60));
    context.diagnostic(`${seen.fps.toFixed(1)} frames a second at the guest`);
    assert.equal(seen.mixed, 0);
    assert.ok(seen.fps > fps * 0.5, `${seen.fps} frames a second`);
  });
}

test("a hundred quick stops and rejoins leave nothing behind", async (context) => {
  const { page, id } = await small(context, 30);
  const pid = service();
  const turns = async (count) => {
    for (let turn = 1; turn <= count; turn++) {
      studio.say("stop");
      studio.say("rejoin");
      if (turn % 10 !== 0) continue;
      await ringer("Ada", false, []);
      await bringIn(id);
      await look(page, 10);
    }
    return held(pid);
  };
  const before = await turns(20); // by then all is there that is kept for the next turn
  const after = await turns(100);
  context.diagnostic(`before ${JSON.stringify(before)}, after ${JSON.stringify(after)}`);
  assert.equal(service(), pid);
  const bounds = { memory: growth(pid, 20), files: 10, threads: 10 };
  for (const [what, bound] of Object.entries(bounds)) assert.ok(after[what] < before[what] + bound, what);
});
