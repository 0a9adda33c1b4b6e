// Figures of series and of processes.

import { readFileSync, readdirSync } from "node:fs";
import { setTimeout as pause } from "node:timers/promises";

/** The value that the given part of them, 0 to 1, does not exceed. */
export function part(values, which) {
  if (!values.length) throw new Error("nothing was measured");
  return [...values].sort((one, other) => one - other)[Math.round(which * (values.length - 1))];
}

/** The process and all that it has started. */
export function family(pid) {
  const children = readdirSync(`/proc/${pid}/task`).flatMap((task) =>
    readFileSync(`/proc/${pid}/task/${task}/children`, "utf8").trim().split(" ").filter(Boolean),
  );
  return [pid, ...children.flatMap(family)];
}

const TICKS_A_SECOND = 100; // what Linux shows to programs, whatever it counts in

function processorTime(pid) {
  const afterName = readFileSync(`/proc/${pid}/stat`, "utf8")
    .replace(/^.*\) /s, "")
    .split(" ");
  return (Number(afterName[11]) + Number(afterName[12])) / TICKS_A_SECOND;
}

/** How much of one core the processes take, in per cent, while so many seconds go by. */
export async function load(pids, seconds) {
  const total = () => pids.reduce((sum, pid) => sum + processorTime(pid), 0);
  const [from, begin] = [total(), performance.now()];
  await pause(seconds * 1000);
  return ((total() - from) * 100_000) / (performance.now() - begin);
}

/** Resident memory, in MiB; what processes share counts once. */
export function memory(pids) {
  const proportional = (pid) =>
    Number(readFileSync(`/proc/${pid}/smaps_rollup`, "utf8").match(/^Pss:\s+(\d+)/m)[1]);
  return pids.reduce((sum, pid) => sum + proportional(pid), 0) / 1024;
}
