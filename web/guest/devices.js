// The guest's own camera and microphone on the page: choosing them,
// and another in the place of one that goes.

import { LevelMeter, explain, isThere, listDevices, openCamera, openTrack, secure } from "./media.js";

const LEVEL_TIME = 100;
const LOOK_TIME = 1_000;
const KINDS = ["audio", "video"];

/**
 * To `on` is told:
 *   opened()                        camera and microphone are there
 *   track(track)                    one of the stream's, from now on
 *   chosen()                        the guest's choice has changed
 *   standing({ camera, microphone }) how they are: "on", "silent" or "gone"
 *   fault(words, canTry)            empty when all is well again; `canTry`: once more may help
 *   notice(words)                   what is worth knowing
 */
export class Devices {
  /** The camera's and the microphone's; null before the first were opened. */
  stream = null;
  meter = new LevelMeter();

  #page;
  #on;
  #changes = Promise.resolve();

  constructor(page, on) {
    this.#page = page;
    this.#on = on;
    page.camera.addEventListener("change", () => this.#change("video"));
    for (const id of ["microphone", "original"])
      page[id].addEventListener("change", () => this.#change("audio"));
    navigator.mediaDevices?.addEventListener("devicechange", () => this.#replaceGone());
    setInterval(() => (page.level.value = this.meter.level()), LEVEL_TIME);
    setInterval(() => this.#look(), LOOK_TIME);
  }

  /** What the guest has chosen on the page. */
  get wishes() {
    const { camera, microphone, original } = this.#page;
    return { camera: camera.value, microphone: microphone.value, original: original.checked };
  }

  /** Asks the browser for a camera and a microphone; ends in `on.opened` or `on.fault`. */
  async open(wishes) {
    this.#on.fault("", false);
    if (!secure()) {
      const words = "Your browser gives no camera to this page. Open it with https:// in front.";
      return this.#on.fault(words, false);
    }
    this.#wait("Your browser asks for your camera and microphone. Please allow both.");
    try {
      this.stream = await openCamera(this.stream ? this.wishes : wishes);
    } catch (error) {
      this.#wait("No camera");
      return this.#on.fault(explain(error), true);
    }
    this.#wait("");
    this.#page.self.srcObject = this.stream;
    for (const track of this.stream.getTracks()) this.#adopt(track);
    await this.#list();
    this.#on.opened();
  }

  #wait(words) {
    this.#page["self-wait"].textContent = words;
  }

  #track(kind) {
    return this.stream.getTracks().find((track) => track.kind === kind);
  }

  #adopt(track) {
    if (track.kind === "audio") this.meter.listen(track);
    track.onended = () => this.#replaceGone();
    track.onmute = track.onunmute = () => this.#look();
    this.#look();
    this.#on.track(track);
  }

  #look() {
    if (!this.stream) return;
    const microphone = !isThere(this.stream, "audio") ? "gone" : this.meter.silent ? "silent" : "on";
    this.#on.standing({ microphone, camera: isThere(this.stream, "video") ? "on" : "gone" });
  }

  async #list() {
    const devices = await listDevices();
    for (const [id, kind] of [["camera", "video"], ["microphone", "audio"]]) {
      const current = this.#track(kind)?.getSettings().deviceId;
      const options = devices[id].map((each) => new Option(each.label, each.id, false, each.id === current));
      this.#page[id].replaceChildren(...options);
    }
  }

  // One change after the other: that a device has gone is told in several ways.
  #change(kind) {
    return this.#later(() => this.#replace(kind));
  }

  #replaceGone() {
    return this.#later(async () => {
      if (!this.stream) return;
      await this.#list();
      for (const kind of KINDS) if (this.#track(kind)?.readyState !== "live") await this.#replaceLost(kind);
    });
  }

  #later(change) {
    return (this.#changes = this.#changes.then(change));
  }

  async #replaceLost(kind) {
    await this.#replace(kind);
    const label = this.#track(kind)?.label;
    const word = kind === "video" ? "camera" : "microphone";
    if (label) this.#on.notice(`Your ${word} has gone. In its place there is now: ${label}.`);
  }

  // Also in mid-show.
  async #replace(kind) {
    // First let go of the one before: a phone opens only one camera at a time.
    const old = this.#track(kind);
    if (old) {
      old.onended = null;
      old.stop();
      this.stream.removeTrack(old);
    }
    try {
      const track = await openTrack(kind, this.wishes);
      this.stream.addTrack(track);
      this.#adopt(track);
      if (KINDS.every((each) => this.#track(each))) this.#on.fault("", false);
    } catch (error) {
      this.#on.fault(explain(error), true);
    }
    this.#look();
    await this.#list();
    this.#on.chosen();
  }
}
