// Chromium with a camera and a microphone of known content, and what guests do in it.

import assert from "node:assert/strict";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

import { areCameras, writeCamera, writeTones } from "./content.js";
import { DEADLINE } from "./studio.js";

const axeSource = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");

export const CAMERA_SIZE = { width: 640, height: 360 };
/** What the microphone hears left and right, in Hz. */
export const TONES = [660, 1100];

const FLAGS = [
  "--no-sandbox", // the tests may run as root
  "--disable-gpu",
  "--disable-quic",
  "--no-first-run",
  "--disable-background-networking",
  "--disable-component-update",
  "--disable-sync",
  "--allow-loopback-in-peer-connection",
  "--autoplay-policy=no-user-gesture-required",
  "--use-fake-device-for-media-stream",
];

/** A browser for guests that allows the camera, or refuses it; `close` ends it and takes its files away. */
export async function launch({ refusing = false } = {}) {
  const folder = mkdtempSync(join(tmpdir(), "guests-"));
  writeCamera(join(folder, "camera.y4m"), CAMERA_SIZE.width, CAMERA_SIZE.height);
  writeTones(join(folder, "tones.wav"), TONES);
  const browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: [
      ...FLAGS,
      ...(refusing ? [] : ["--use-fake-ui-for-media-stream"]),
      `--use-file-for-fake-video-capture=${join(folder, "camera.y4m")}`,
      `--use-file-for-fake-audio-capture=${join(folder, "tones.wav")}`,
    ],
  });
  const faults = [];

  return {
    /** What any page complained of so far, the browser's own complaints about it included. */
    faults,

    /** Opens the link; with `name` the guest has been here before, wanting the original sound. */
    async open(link, { name, ...options } = {}) {
      const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, ...options });
      context.setDefaultTimeout(DEADLINE);
      const page = await context.newPage();
      page.on("pageerror", (error) => faults.push(error.stack));
      page.on("console", (message) => message.type() === "error" && faults.push(message.text()));
      if (name) {
        // Without the processing of speech, which takes a steady tone for noise.
        const stored = JSON.stringify({ name, original: true });
        await page.addInitScript(
          (text) => localStorage.getItem("guest") ?? localStorage.setItem("guest", text),
          stored,
        );
      }
      await page.goto(link);
      return page;
    },

    async close() {
      await browser.close();
      rmSync(folder, { recursive: true, force: true });
    },
  };
}

/**
 * Has the page, which has not rung yet, write down every signal of its room in `window.heard` as it comes, and
 * keep what sends them as `window.signals`.
 */
export async function listenIn(page) {
  await page.evaluate(async () => {
    const { Signals } = await import("./signals.js");
    const { open } = Signals.prototype;
    window.heard = [];
    Signals.prototype.open = function (...where) {
      const { onsignal } = this;
      this.onsignal = (type, data) => (window.heard.push({ type, data }), onsignal(type, data));
      window.signals = this;
      return open.apply(this, where);
    };
  });
}

/** Presses Ring; resolves when the page is in the room. A studio may bring the guest in at once. */
export async function ring(page) {
  await page.click("#ring:enabled");
  await inState(page, "ringing", "green-room");
}

/** Rings; resolves with the number under which the studio has the guest. */
export async function ringIn(page, studio, name) {
  const before = studio.now;
  await ring(page);
  return (await studio.report("ring", { name }, before)).guest;
}

/** Rings and is brought in; resolves with the number. */
export async function comeIn(page, studio, name) {
  const guest = await ringIn(page, studio, name);
  await studio.admit(guest);
  await inState(page, "green-room");
  return guest;
}

/** The studio's picture of the guest is the camera's. */
export async function seesCamera(studio, guest) {
  const { width, height, quarters } = await studio.snapshot(guest);
  assert.deepEqual({ width, height }, CAMERA_SIZE);
  assert.ok(areCameras(quarters), `the quarters are ${JSON.stringify(quarters)}`);
}

export const inState = (page, ...states) =>
  page.waitForSelector(states.map((state) => `body[data-state="${state}"]`).join(","));

/** Resolves when the element's text matches; rejects with what it was instead. */
export async function says(page, selector, pattern) {
  const matches = ([selector, pattern]) => pattern.test(document.querySelector(selector)?.textContent ?? "");
  await page.waitForFunction(matches, [selector, pattern]).catch(async (cause) => {
    throw new Error(`${selector} says "${await page.textContent(selector)}", not ${pattern}`, { cause });
  });
}

/**
 * Resolves when a second of what the page plays has each of the tones of `heard`, in Hz, and none of those of
 * `unheard`; rejects with how loud they are, in dB.
 */
export async function hears(page, heard, unheard = []) {
  const tones = [...heard, ...unheard];
  const fits = (loudness) => loudness.every((each, at) => (at < heard.length ? each > -50 : each < -60));
  let loudness;
  for (const end = Date.now() + DEADLINE / 3; Date.now() < end;) {
    loudness = await page.evaluate(listen, [tones, 1_000]);
    if (fits(loudness)) return;
  }
  assert.fail(
    `to hear: ${heard} Hz; ${tones.map((tone, at) => `${tone} Hz has ${loudness[at]} dB`).join(", ")}`,
  );
}

// Recorded and decoded, since an AudioContext stands still on a machine without loudspeakers in some browsers.
async function listen([tones, time]) {
  const recorder = new MediaRecorder(document.querySelector("#sound").srcObject ?? new MediaStream());
  const parts = [];
  recorder.ondataavailable = ({ data }) => parts.push(data);
  const stopped = new Promise((resolve) => (recorder.onstop = resolve));
  let samples = [];
  try {
    recorder.start();
    await new Promise((done) => setTimeout(done, time));
    recorder.stop();
    await stopped;
    const recording = await new Blob(parts).arrayBuffer();
    const decoded = await new OfflineAudioContext(1, 48_000, 48_000).decodeAudioData(recording);
    samples = decoded.getChannelData(0);
  } catch {
    await new Promise((done) => setTimeout(done, 100)); // there is nothing to record yet
  }
  return tones.map((hertz) => {
    let [cosine, sine] = [0, 0];
    samples.forEach((sample, at) => {
      const window = 1 - Math.cos((2 * Math.PI * at) / samples.length);
      const angle = (2 * Math.PI * hertz * at) / 48_000;
      cosine += window * sample * Math.cos(angle);
      sine += window * sample * Math.sin(angle);
    });
    return Math.round(20 * Math.log10((2 * Math.hypot(cosine, sine)) / samples.length + 1e-6)) || -120;
  });
}

/** The rules of accessibility that the page breaks in earnest, with the places. */
export async function seriousFaults(page) {
  await page.evaluate(axeSource);
  const { violations } = await page.evaluate(() => window.axe.run(document, { resultTypes: ["violations"] }));
  return violations
    .filter(({ impact }) => impact === "serious" || impact === "critical")
    .map(({ id, nodes }) => `${id}: ${nodes.map(({ target }) => target).join(", ")}`);
}
