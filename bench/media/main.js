// main.js PROGRAMS PART: what takes real browsers and a real session server to measure. PROGRAMS is the
// folder of the programs that were built. Each row of the result is a line of JSON on standard output.

import { readFileSync } from "node:fs";

import { measureDelay } from "./delay.js";
import { measureEndurance, measureLoad } from "./load.js";

const [programs, what] = process.argv.slice(2);
const report = (name, value, unit, floor = 0, goal = 0) =>
  console.log(JSON.stringify({ name, value, unit, floor, goal }));

const code = readFileSync(new URL("time_code.js", import.meta.url), "utf8");
const timeCode = `data:text/javascript,${encodeURIComponent(code)}`;

const parts = {
  delay: () => measureDelay(programs, timeCode, report),
  load: () => measureLoad(programs, report),
  endurance: () => measureEndurance(programs, report),
};
await parts[what]();
