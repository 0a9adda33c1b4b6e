// What the service takes of the processor and of memory with guests in it and the show going out, beside a
// bare pipeline that receives and decodes the same streams and encodes the same show, and beside a browser
// that receives them.

import { launch } from "../../tests/e2e/support/browser.js";
import { family, load, memory } from "./figures.js";
import { Guests } from "./guests.js";
import { Pipeline, barePipeline } from "./pipelines.js";
import { Studio } from "./studio.js";

const FRAMES_PER_SECOND = 30;
const SETTLING_SECONDS = 4;
const SECONDS = 10;
const LONG_SHOW_MINUTES = 10;

export async function measureLoad(programs, report) {
  for (const count of [1, 2, 4, 8]) {
    await withGuests(programs, count, async (studio, guests) => {
      await inShow(studio, count);
      const service = await taken([studio.service]);
      await leaveShow(studio);

      const show = await guests.startShow();
      const bare = await Pipeline.start(barePipeline(await guests.forward(), show.socket));
      const floor = await taken(family(bare.pid));
      if (bare.frames < count * FRAMES_PER_SECOND * SECONDS)
        throw new Error("the bare pipeline does not keep up");
      await bare.end();
      await show.end();
      await guests.stopForwarding();

      const others = family(process.pid);
      const browser = await launch();
      await guests.watchIn(await browser.open(studio.link));
      const receiving = await taken(family(process.pid).filter((pid) => !others.includes(pid)));
      await browser.close();

      const plural = count === 1 ? "1 guest" : `${count} guests`;
      report(`${plural} of 720p30 and the show: processor`, service.load, "% core", floor.load, 1.15);
      report(`${plural} of 720p30: processor, a browser`, receiving.load, "% core", floor.load);
      report(`${plural} of 720p30 and the show: memory`, service.memory, "MiB", floor.memory);
    });
  }
}

/** Whether memory stays level in a long show; its floor is what was taken after the first minute. */
export async function measureEndurance(programs, report) {
  await withGuests(programs, 2, async (studio) => {
    await inShow(studio, 2);
    await load([studio.service], 60);
    const early = memory([studio.service]);
    await load([studio.service], (LONG_SHOW_MINUTES - 1) * 60);
    await studio.seesFrames(FRAMES_PER_SECOND);
    report(`memory after ${LONG_SHOW_MINUTES} minutes with 2 guests`, memory([studio.service]), "MiB", early);
  });
}

async function withGuests(programs, count, measure) {
  const studio = await Studio.start(programs);
  const browser = await launch();
  let guests;
  try {
    guests = await Guests.come(count, studio, await browser.open(studio.link));
    await measure(studio, guests);
  } finally {
    await guests?.leave();
    await browser.close();
    await studio.close();
  }
}

async function inShow(studio, count) {
  studio.join();
  await studio.seesFrames(count * FRAMES_PER_SECOND * 0.9);
}

async function leaveShow(studio) {
  studio.leave();
  await studio.next(({ frames }) => frames === 0);
}

async function taken(pids) {
  await load(pids, SETTLING_SECONDS);
  return { load: await load(pids, SECONDS), memory: memory(pids) };
}
