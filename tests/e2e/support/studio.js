// The real studio program, with its session server and its service: its reports and its prompt.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, readFileSync, readdirSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { basename, join } from "node:path";
import { createInterface } from "node:readline";
import { setTimeout as pause } from "node:timers/promises";
import { fileURLToPath } from "node:url";

import { readPicture, readSound } from "./content.js";

/** What has not happened by then never will: also under a sanitizer, on a machine with much to do. */
export const DEADLINE = 90_000;
const BIN = process.env.ZARVO_BIN ?? fileURLToPath(new URL("../../../build/debug/bin", import.meta.url));

/** Whether a guest of the table sounds, or does not. */
export const isHeard = ({ rms }) => rms > -60;
export const isSilent = ({ rms }) => rms < -80;

export class Studio {
  /** Every report so far, oldest first. */
  reports = [];
  /** Where the studio writes the files that it is asked for. */
  folder = mkdtempSync(join(tmpdir(), "studio-"));
  /** What the studio has written for the host's eyes so far. */
  notes = "";

  #process;
  #waiting = new Set();

  /** Starts the studio that was built; resolves when guests can come. */
  static async start(...options) {
    const studio = new Studio(options);
    studio.link = (await studio.report("ready")).link;
    return studio;
  }

  constructor(options) {
    const usual = ["--port", "0", "--requests", "1000"];
    if (!options.includes("--state")) usual.push("--state", "");
    const env = { ...process.env, XDG_RUNTIME_DIR: this.folder };
    this.#process = spawn(join(BIN, "zarvo-studio"), [...usual, ...options], { env });
    this.#process.stderr.on("data", (text) => (this.notes += text));
    const lookAgain = () => this.#waiting.forEach((look) => look());
    this.#process.on("exit", lookAgain);
    createInterface({ input: this.#process.stdout }).on("line", (line) => {
      this.reports.push(JSON.parse(line));
      lookAgain();
    });
  }

  /** Types one line at the prompt. */
  say(line) {
    this.#process.stdin.write(`${line}\n`);
  }

  /** How many reports there are by now: `report` then looks only at those after it. */
  get now() {
    return this.reports.length;
  }

  /**
   * Resolves with the first report of that name, from the one numbered `after` on, that has all of
   * `fields`. Rejects when it does not come in time.
   */
  report(name, fields = {}, after = 0) {
    const fits = (report) =>
      report.event === name && Object.entries(fields).every(([key, value]) => report[key] === value);
    return new Promise((resolve, reject) => {
      const end = (settle, value) => {
        clearTimeout(timer);
        this.#waiting.delete(look);
        settle(value);
      };
      const fail = (why) => {
        const telling = this.reports.filter(({ event }) => event !== "frame");
        const recent = telling.slice(-15).map((report) => `${JSON.stringify(report)}\n`);
        const wanted = `"${name}" ${JSON.stringify(fields)}`;
        const said = `the last reports:\n${recent.join("")}and notes:\n${this.notes.slice(-2000)}`;
        end(reject, new Error(`${why}: no ${wanted}; ${said}`));
      };
      const look = () => {
        const found = this.reports.slice(after).find(fits);
        if (found) end(resolve, found);
        else if (this.#ended !== null) fail(`the studio ended with ${this.#ended}`);
      };
      const timer = setTimeout(() => fail("time is up"), DEADLINE);
      this.#waiting.add(look);
      look();
    });
  }

  /** Says the line and resolves with the report that follows it. */
  async ask(line, name, fields) {
    const after = this.now;
    this.say(line);
    return this.report(name, fields, after);
  }

  /** Asks for the table of guests until it is as `fits` wants it; resolves with it. */
  async guests(what, fits) {
    const end = Date.now() + DEADLINE;
    for (;;) {
      const table = await this.ask("guests", "guests");
      if (fits(table)) return table;
      if (Date.now() > end)
        throw new Error(`the guests' table never said: ${what}; it says ${JSON.stringify(table)}`);
      await pause(100);
    }
  }

  /** Asks for one guest's row of the table until it is as `fits` wants it; resolves with it. */
  async guest(number, what, fits) {
    const row = ({ guests }) => guests.find(({ guest }) => guest === number);
    return row(await this.guests(what, (table) => row(table) && fits(row(table))));
  }

  /** Takes out whoever is on the list; resolves when they have gone. */
  async clear() {
    const { guests } = await this.ask("guests", "guests");
    const after = this.now;
    for (const { guest } of guests) this.say(`remove ${guest}`);
    for (const { guest } of guests) await this.report("gone", { guest }, after);
  }

  /** Brings a ringing guest in by number; resolves with the report of the first frame. */
  async admit(guest) {
    return this.ask(`admit ${guest}`, "frame", { guest });
  }

  /** Writes a guest's next picture to a file; resolves with what is in it. */
  async snapshot(guest) {
    const file = join(this.folder, `${this.now}.png`);
    await this.ask(`snapshot ${guest} ${file}`, "snapshot", { file });
    return readPicture(file);
  }

  /** Records a guest; resolves with how much of each tone is in each channel. */
  async listen(guest, tones) {
    const file = join(this.folder, `${this.now}.wav`);
    await this.ask(`record-audio ${guest} 0.6 ${file}`, "recorded", { file });
    return readSound(file, tones);
  }

  get pid() {
    return this.#process.pid;
  }

  /** The names of the sockets at which services can be reached. */
  sockets() {
    return readdirSync(this.folder).filter((name) => name.includes("guest-service"));
  }

  /** Has no time to end what it has started; resolves with the process ids of all that. */
  async kill() {
    const children = this.children();
    const exit = once(this.#process, "exit", { signal: AbortSignal.timeout(DEADLINE) });
    this.#process.kill("SIGKILL");
    await exit;
    rmSync(this.folder, { recursive: true, force: true });
    return children;
  }

  /** The process ids of the studio's children, or of those of that program, oldest first. */
  children(program) {
    // What ends while it is looked at is not there any more.
    const read = (file) => {
      try {
        return readFileSync(`/proc/${file}`, "utf8");
      } catch {
        return "";
      }
    };
    const children = readdirSync(`/proc/${this.pid}/task`).flatMap((task) =>
      read(`${this.pid}/task/${task}/children`).trim().split(" "),
    );
    const nameOf = (child) => basename(read(`${child}/cmdline`).split("\0")[0]);
    const isIt = (child) => child && (program ? nameOf(child) === program : nameOf(child) !== "");
    const started = (child) => read(`${child}/stat`).split(") ").at(-1).split(" ")[19];
    return children
      .filter(isIt)
      .map(Number)
      .sort((a, b) => started(a) - started(b));
  }

  /** Ends the studio in the orderly way; rejects if it does not end well. */
  async close() {
    if (this.#ended === null) {
      const exit = once(this.#process, "exit", { signal: AbortSignal.timeout(DEADLINE) });
      this.say("exit");
      await exit.finally(() => this.#process.kill("SIGKILL"));
    }
    rmSync(this.folder, { recursive: true, force: true });
    if (this.#ended !== 0) throw new Error(`the studio ended with ${this.#ended}:\n${this.notes}`);
  }

  get #ended() {
    return this.#process.exitCode ?? this.#process.signalCode;
  }
}
