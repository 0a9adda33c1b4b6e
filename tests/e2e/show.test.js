// A whole show: two guests, one of them with a screen, every command of the prompt, and what goes wrong in
// shows. SHOW_MINUTES sets how long it runs; rounds of the same show go on until then.

import assert from "node:assert/strict";
import { existsSync, mkdtempSync, readFileSync, readdirSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { setTimeout as pause } from "node:timers/promises";

import { CAMERA_SIZE, TONES, comeIn, hears, inState, launch, says, seesCamera } from "./support/browser.js";
import { alike } from "./support/content.js";
import { rooms } from "./support/janus.js";
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

let start;
async function open(context, show, options) {
  const words = Object.entries(options).flatMap(([name, value]) => [
    `--${name}`,
    ...(value === true ? [] : [`${value}`]),
  ]);
  start = async () => (studio = await Studio.start("--no-log", "--show", show, ...words));
  context.after(() => studio.close());
  await start();
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
  if (hertz) await hears(page, [hertz]);
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

// ---- The guests --------------------------------------------------------------

const pages = {};
const ids = {};

/** Brings everybody in, Bob with his screen, and sees and hears the show go both ways. */
async function bringAllIn() {
  for (const [name, page] of Object.entries(pages)) {
    ids[name] = await comeIn(page, studio, name);
    await seesCamera(studio, ids[name]);
  }
  const shared = studio.now;
  await pages.Bob.click("#share:enabled");
  await says(pages.Bob, "#share", /^Stop sharing$/);
  const { width } = await studio.report("frame", { guest: ids.Bob, screen: true }, shared);
  assert.notEqual(width, CAMERA_SIZE.width);
  await flows();
}

/** Frames go both ways. */
async function flows() {
  await Promise.all(Object.values(pages).map((page) => look(page, 10)));
  const flow = Object.values(ids).map((guest) => studio.guest(guest, "frames come", ({ fps }) => fps > 3));
  await Promise.all(flow);
}

// ---- The show's course -------------------------------------------------------

/** One round of an ordinary show, with every command that does not end it. */
async function round(number) {
  const { Ada, Bob } = pages;
  for (const show of [RED, BLUE]) {
    assert.equal((await studio.ask(`show ${plain(show.rgb, show.hertz)}`, "show")).state, "playing");
    await Promise.all([shows(Ada, show), shows(Bob, show)]);
  }
  const air = [
    ["endshow", "green-room", "green-room"],
    [`live ${ids.Ada}`, "standby", "green-room"],
    ["golive", "on-air", "green-room"],
    ["offair on", "on-air", "off-air"],
    ["offair off", "on-air", "green-room"],
    ["record", "recorded", "green-room"],
  ];
  for (const [command, first, second] of air) {
    studio.say(command);
    await Promise.all([inState(Ada, first), inState(Bob, second)]);
  }
  await studio.guest(ids.Bob, "is not let through", isSilent);
  await studio.guest(ids.Ada, "is heard", isHeard);
  const channels = await studio.listen(ids.Ada, TONES);
  channels.forEach((parts, at) => assert.ok(parts[at] > 0.7, JSON.stringify(channels)));
  studio.say(`mute ${ids.Ada}`);
  await studio.guest(ids.Ada, "is silent", isSilent);
  studio.say(`unmute ${ids.Ada}`);
  await studio.guest(ids.Ada, "is heard again", isHeard);

  studio.say(`viewers ${number}`);
  studio.say(`pref {"title": "Round ${number}"}`);
  const { uuid } = await studio.ask(`comment Eve: Round ${number}`, "commentSent");
  studio.say(`fav ${uuid} on`);
  const line = await studio.ask(`chat Host: Round ${number}`, "chatSent");
  const title = new RegExp(`^Round ${number}$`);
  for (const page of [Ada, Bob]) {
    await says(page, "#viewers", new RegExp(`^${number} watching$`));
    await says(page, "#title", title);
    await says(page, `#comments [data-uuid="${uuid}"] .what`, title);
    await says(page, `#comments [data-uuid="${uuid}"] .star`, /★/);
    await says(page, `#chat [data-uuid="${line.uuid}"] .what`, title);
  }
  await Bob.fill("#chat-text", `Bob's ${number}`);
  await Bob.press("#chat-text", "Enter");
  await says(Ada, "#chat", new RegExp(`Bob's ${number}`));

  const read = studio.notes.length;
  for (const command of ["log on", "help", "link", "show", "help admit", "nonsense", "log off"])
    studio.say(command);
  const answers = [
    "record-audio ID SECONDS FILE",
    studio.link,
    "The show: videotestsrc",
    "admit ID - ",
    'no command "nonsense"',
  ];
  for (const words of answers) await until(`noted "${words}"`, () => studio.notes.includes(words, read));
  studio.say(`greenroom ${ids.Ada}`);
  await inState(Ada, "green-room");
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
  const seen = await look(pages.Ada, 1);
  assert.deepEqual({ width: seen.width, height: seen.height }, SIZE);

  from = studio.now;
  studio.say(`show ${picture(filled(RED.rgb))} sleep-time=1500000`);
  await studio.report("show", { state: "stalled" }, from);
  await studio.report("show", { state: "goes on" }, from);
  await shows(pages.Bob, { rgb: RED.rgb });
  assert.equal((await studio.ask("show no/such/file", "show")).state, "refused");
  assert.equal((await studio.ask(`show ${plain(BLUE.rgb, BLUE.hertz)}`, "show")).state, "playing");
  await Promise.all(Object.values(pages).map((page) => shows(page, BLUE)));
}

/** The session server hangs for a while, and then dies; so do the program's service and the studio itself. */
async function losses() {
  const hung = studio.now;
  const [janus] = studio.children("janus");
  process.kill(janus, "SIGSTOP");
  await pause(4_000); // as long as it hangs
  process.kill(janus, "SIGCONT");
  await flows();
  const since = studio.reports.slice(hung).map(({ event, state }) => state ?? event);
  for (const loss of ["away", "gone", "serviceLost"]) assert.ok(!since.includes(loss), since.join());

  // Whatever dies, everybody is back where they were, with no hand.
  for (const command of [`live ${ids.Ada}`, `mute ${ids.Ada}`, "golive"]) studio.say(command);
  await says(pages.Ada, "#status", /On air, muted/);
  const isBack = async () => {
    const { Ada, Bob } = ids;
    await studio.guest(Ada, "is back on air", (row) => row.state === "live" && row.muted && row.fps > 3);
    await studio.guest(Bob, "is back", (row) => row.state === "greenRoom" && row.screen && row.fps > 3);
    await says(pages.Ada, "#status", /On air, muted/);
    await inState(pages.Bob, "green-room");
    await flows();
  };
  const killed = studio.now;
  process.kill(studio.children("zarvo-guest-service")[0], "SIGKILL"); // the program's is the oldest
  await studio.report("serviceLost", { guest: 0 }, killed);
  await isBack();
  process.kill(janus, "SIGKILL");
  await studio.report("sessionServerEnded", {}, killed);
  await studio.report("sessionServerBack", {}, killed);
  await isBack();

  const { link } = studio;
  const orphans = await studio.kill();
  const isThere = (child) => existsSync(`/proc/${child}`);
  await until("nothing outlives the studio", () => !orphans.some(isThere));
  await start();
  assert.equal(studio.link, link);
  studio.say("golive");
  await isBack();
  for (const command of ["endshow", `unmute ${ids.Ada}`]) studio.say(command);
  await inState(pages.Ada, "standby");
}

/** Everybody is taken out, the last one while frames flow both ways, and may ring again. */
async function removals() {
  for (const name of ["Bob", "Ada"]) {
    const guest = ids[name];
    await look(pages[name], 5);
    await studio.ask(`remove ${guest}`, "gone", { guest });
    await says(pages[name], "#notice", /taken you out/);
    await inState(pages[name], "lobby");
    if (name === "Bob") await look(pages.Ada, 5);
  }
}

test("a show with two guests and a screen holds, whatever happens in it", async (context) => {
  const folder = mkdtempSync(join(tmpdir(), "show-"));
  context.after(() => rmSync(folder, { recursive: true }));
  await open(context, plain(RED.rgb, RED.hertz), { ...SIZE, state: join(folder, "lobby.json") });
  const begin = Date.now();
  const memory = () => {
    const services = studio.children("zarvo-guest-service").map((pid) => held(pid).memory);
    return { services: services.reduce((sum, each) => sum + each), studio: held(studio.pid).memory };
  };
  const figures = (what) => {
    const minutes = ((Date.now() - begin) / 60_000).toFixed(1);
    context.diagnostic(`${minutes} min, ${what}: MB ${JSON.stringify(memory())}`);
  };
  for (const name of ["Ada", "Bob"]) pages[name] = await browser.open(studio.link, { name });
  await bringAllIn();
  figures("all in");
  let number = 1;
  const steps = [
    () => round(number++),
    tearing,
    sources,
    losses,
    removals,
    bringAllIn,
    () => round(number++),
  ];
  for (const step of steps) {
    await step();
    figures(step.name || `round ${number - 1}`);
  }
  const before = memory();
  while (Date.now() - begin < LENGTH) {
    await round(number++);
    const rates = (await studio.ask("guests", "guests")).guests.map(({ fps }) => Math.round(fps)).join(", ");
    const shown = Math.round((await look(pages.Ada, 30)).fps);
    figures(`round ${number - 1}, show ${shown} and guests ${rates} frames a second`);
  }
  for (const [who, now] of Object.entries(memory()))
    assert.ok(now < before[who] + growth(studio.pid, 60), `${who}: ${before[who]} MB, then ${now} MB`);
  await removals();
  const faults = browser.faults.filter((text) => !/WebSocket connection|ERR_|Failed to load/.test(text));
  assert.deepEqual(faults, []);
  await Promise.all(Object.values(pages).map((page) => page.context().close()));
});

for (const fps of [5, 120]) {
  test(`a show of ${fps} frames a second reaches the guest`, async (context) => {
    const options = { width: 320, height: 180, fps };
    await open(context, picture("pattern=blink", options, fps), options);
    const page = await browser.open(studio.link, { name: "Ada" });
    context.after(() => page.context().close());
    await comeIn(page, studio, "Ada");
    await look(page, 10);
    const seen = await look(page, Math.min(fps * 4, 60));
    context.diagnostic(`${seen.fps.toFixed(1)} frames a second at the guest`);
    assert.equal(seen.mixed, 0);
    assert.ok(seen.fps > fps * 0.5, `${seen.fps} frames a second`);
  });
}

test("a killed service costs its own guest a second and nobody else a frame, and guests leave nothing", async (context) => {
  await open(context, "off", { frames: true });
  const spy = await browser.open(new URL("icon.svg", studio.link).href, { bypassCSP: true });
  context.after(() => spy.context().close());
  const services = () => studio.children("zarvo-guest-service");
  // Each has a socket and its lock.
  const ready = (count) => services().length === count && studio.sockets().length === 2 * count;
  await until("the spare is ready", () => ready(2));
  const inRooms = async () =>
    (await rooms(spy, studio)).map(({ streams, signals }) => `${streams}, ${signals}`).sort();
  const empty = ["3, 1"]; // the program's: who watches it, and the service twice
  const hold = async (wanted) => {
    for (const end = Date.now() + DEADLINE; ; await pause(100)) {
      const found = await inRooms();
      if (found.join() === wanted.join()) return;
      assert.ok(Date.now() < end, `the rooms hold ${found}`);
    }
  };
  await hold(empty);

  const names = ["Ada", "Bob", "Cem", "Dan"];
  const guests = await Promise.all(names.map((name) => browser.open(studio.link, { name })));
  const numbers = [];
  for (const [at, page] of guests.entries()) numbers.push(await comeIn(page, studio, names[at]));
  studio.say(`live ${numbers[0]}`);
  const settled = ["3, 1", ...Array(4).fill("3, 2")]; // in a guest's: the page, and the service twice
  await hold(settled);

  /** Of the guests' frames reported since then: how many there were, and how many of the service's are missing. */
  const framesOf = (whose, from) => {
    const last = new Map();
    const found = { seen: 0, lost: 0 };
    for (const { event, guest, num } of studio.reports.slice(from)) {
      if (event !== "frame" || !whose.includes(guest)) continue;
      found.seen++;
      found.lost += num - 1 - (last.get(guest) ?? num - 1);
      last.set(guest, num);
    }
    return found;
  };
  const times = [];
  const losses = []; // of the others' frames
  for (let kill = 0; kill < 15; kill++) {
    const oldest = services()[0]; // its guest gets the youngest
    const from = studio.now;
    const at = Date.now();
    process.kill(oldest, "SIGKILL");
    const { guest } = await studio.report("serviceLost", {}, from);
    if (guest !== 0) {
      await studio.report("frame", { guest, num: 1 }, from); // others were on their way before
      times.push(Date.now() - at);
      await studio.report("serviceBack", { guest }, from);
      // Beginnings come in bursts, of which some pictures are left out.
      const flows = (each) => each.event === "frame" && each.guest === guest && each.num > 30;
      await until("the pictures flow again", () => studio.reports.slice(from).some(flows));
    }
    await until("there is a spare again", () => ready(6));
    const others = numbers.filter((each) => each !== guest);
    await until("the others' pictures go on", () => others.every((each) => framesOf([each], from).seen > 0));
    const { lost } = framesOf(others, from);
    losses.push(lost);
    const told = studio.reports
      .slice(from)
      .filter((each) => others.includes(each.guest) && each.event !== "frame");
    assert.deepEqual(told, [], `of others than #${guest}`);
  }
  // A machine with much to do is slow, and loses some frames without anybody's end: but not each time.
  const middle = (values) => values.toSorted((a, b) => a - b)[Math.floor(values.length / 2)];
  context.diagnostic(
    `without a picture for ${times.join(", ")} ms; the others lost ${losses.join(", ")} frames`,
  );
  assert.equal(middle(losses), 0);
  assert.ok(middle(times) < 3_000);
  await studio.guest(numbers[0], "is live again", ({ state }) => state === "live");
  await hold(settled);

  // One leaves, one is taken out, one closes the page, and one loses everything in mid-show.
  const from = studio.now;
  await guests[0].click("#leave");
  studio.say(`remove ${numbers[1]}`);
  await Promise.all(guests.map((page) => page.context().close()));
  for (const guest of numbers.slice(2)) {
    await studio.report("guest", { guest, state: "away" }, from);
    studio.say(`remove ${guest}`);
  }
  for (const guest of numbers) await studio.report("gone", { guest }, from);
  await until("all services have gone", () => ready(2));
  await hold(empty);
});
