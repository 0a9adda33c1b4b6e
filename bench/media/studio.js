// The measurements' studio, with its session server and its service.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { join } from "node:path";
import { createInterface } from "node:readline";

const PATIENCE = 30_000;

export class Studio {
  #process;
  #lines = [];
  #waiting = new Set();

  /** Resolves when the studio's service can join; `link`, `room`, `secret` and `service` are known then. */
  static async start(programs) {
    const studio = new Studio();
    studio.#process = spawn(join(programs, "zarvo-bench-studio"), { stdio: ["pipe", "pipe", "ignore"] });
    createInterface({ input: studio.#process.stdout }).on("line", (line) => {
      studio.#lines.push(JSON.parse(line));
      for (const look of studio.#waiting) look();
    });
    return Object.assign(studio, await studio.next(({ link }) => link));
  }

  join() {
    this.#process.stdin.write("join\n");
  }

  leave() {
    this.#process.stdin.write("leave\n");
  }

  /** Resolves with the next line that fits. */
  next(fits) {
    const failure = new Error("the studio does not say what it should: " + fits);
    const from = this.#lines.length;
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => end(reject, failure), PATIENCE);
      const end = (settle, value) => {
        clearTimeout(timer);
        this.#waiting.delete(look);
        settle(value);
      };
      const look = () => {
        const found = this.#lines.slice(from).find(fits);
        if (found) end(resolve, found);
        else if (this.#process.exitCode !== null) end(reject, new Error("the studio has ended"));
      };
      this.#waiting.add(look);
    });
  }

  /** Resolves when at least so many of the guests' pictures came in one second. */
  seesFrames(count) {
    return this.next(({ frames }) => frames >= count);
  }

  /** How old the guests' pictures were that came in that time, in milliseconds. */
  async ages(seconds) {
    const all = [];
    for (let second = 0; second < seconds; second++) all.push(...(await this.next(({ ages }) => ages)).ages);
    return all;
  }

  async close() {
    this.#process.stdin.end();
    if (this.#process.exitCode === null) await once(this.#process, "exit");
  }
}
