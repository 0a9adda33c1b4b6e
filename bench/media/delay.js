// How long a picture takes from a guest's camera to the studio, and from the studio to a guest's browser,
// beside what it takes from browser to browser in the same room.

import { launch, ring } from "../../tests/e2e/support/browser.js";
import { Studio } from "./studio.js";
import { part } from "./figures.js";

const SIZE = { width: 1024, height: 576 };
const FRAMES_PER_SECOND = 30;
const SETTLING_SECONDS = 20; // so long a browser remembers in its buffer how the stream began
const SECONDS = 40;

export async function measureDelay(programs, timeCode, report) {
  const studio = await Studio.start(programs);
  const browser = await launch();
  try {
    const guest = await browser.open(studio.link, { name: "Camera", bypassCSP: true });
    await guest.addInitScript(
      ([source, { width, height }, framesPerSecond]) => {
        const devices = navigator.mediaDevices;
        const getUserMedia = devices.getUserMedia.bind(devices);
        devices.getUserMedia = async (wish) => {
          const { openCamera } = await import(source);
          const camera = wish.video ? [openCamera(width, height, framesPerSecond)] : [];
          const microphone = wish.audio ? (await getUserMedia({ audio: wish.audio })).getTracks() : [];
          return new MediaStream([...camera, ...microphone]);
        };
      },
      [timeCode, SIZE, FRAMES_PER_SECOND],
    );
    await guest.reload();
    studio.join();
    const rings = studio.next(({ ring }) => ring);
    await ring(guest);
    await rings;
    await studio.seesFrames(1);

    const viewer = await browser.open(studio.link, { bypassCSP: true });
    await viewer.evaluate(watch, timeCode);
    await studio.ages(SETTLING_SECONDS);
    await viewer.evaluate(() => window.ages.forEach((ages) => ages.splice(0)));
    const fromCamera = await studio.ages(SECONDS);
    const [fromStudio, betweenBrowsers] = await viewer.evaluate(() => window.ages);

    for (const [name, ages] of [
      ["a guest's camera to the studio", fromCamera],
      ["the studio to a guest's browser", fromStudio],
    ]) {
      report(`delay, ${name}, median`, part(ages, 0.5), "ms", part(betweenBrowsers, 0.5), 1);
      report(`delay, ${name}, 95th percentile`, part(ages, 0.95), "ms", part(betweenBrowsers, 0.95));
    }
  } finally {
    await browser.close();
    await studio.close();
  }
}

// In the page: collects the ages of the show's pictures, and of the guest's.
async function watch(timeCode) {
  const [{ tellAges }, { Session }, { Subscriber }] = await Promise.all(
    [timeCode, "./session.js", "./streams.js"].map((module) => import(module)),
  );
  const { room, token } = Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
  const session = new Session(`ws://${location.host}/janus`);
  await session.open();
  const us = await session.attach("videoroom");
  const { data } = await us.request({ request: "join", ptype: "publisher", room, token, display: "viewer" });
  window.ages = await Promise.all(
    [/^ZarvoLive$/, /^Guest - /].map(async (name) => {
      const { id } = data.publishers.findLast(({ display }) => name.test(display));
      const stream = new Subscriber(id, ["audio", "video"]);
      await stream.open(session, { room, token, iceServers: [] });
      const ages = [];
      tellAges(stream.stream.getVideoTracks()[0], (age) => ages.push(age));
      return ages;
    }),
  );
}
