// The guest's own cameras, microphones and screen.

const SILENCE_TIME = 4_000;

/** Whether the browser lets this page have a camera at all. */
export const secure = () => Boolean(navigator.mediaDevices?.getUserMedia);

/**
 * Opens a camera and a microphone, those of the chosen ids where they are there. `original` asks for the
 * sound as the microphone gives it, in stereo, which suits music and headphones.
 */
export function openCamera(choice) {
  return open(choice, ({ camera, microphone, original }) => ({
    video: videoWish(camera),
    audio: audioWish(microphone, original),
  }));
}

/** Another camera's track, or another microphone's. */
export async function openTrack(kind, choice) {
  const stream = await open(choice, ({ camera, microphone, original }) =>
    kind === "video" ? { video: videoWish(camera) } : { audio: audioWish(microphone, original) },
  );
  return stream.getTracks()[0];
}

export function openScreen() {
  return navigator.mediaDevices.getDisplayMedia({ video: { frameRate: { max: 30 } }, audio: false });
}

/** `{ camera, microphone }`: lists of `{ id, label }`. */
export async function listDevices() {
  const devices = await navigator.mediaDevices.enumerateDevices();
  const ofKind = (kind, word) =>
    devices
      .filter((device) => device.kind === kind && device.deviceId)
      .map(({ deviceId, label }, index) => ({ id: deviceId, label: label || `${word} ${index + 1}` }));
  return { camera: ofKind("videoinput", "Camera"), microphone: ofKind("audioinput", "Microphone") };
}

/** Why no camera could be had, in words for the guest. */
export function explain(error) {
  switch (error.name) {
    case "NotAllowedError":
    case "SecurityError":
      return "Your browser was not allowed to use the camera and the microphone. Allow both for this page, next to its address, and try again.";
    case "NotFoundError":
      return "No camera or no microphone was found. Plug both in and try again.";
    case "NotReadableError":
    case "AbortError":
      return "The camera or the microphone is in use by another program. Close that program and try again.";
    default:
      return `The camera could not be opened (${error.name}).`;
  }
}

/** Whether the stream's camera, or its microphone, is there and has not been switched off by the system. */
export function isThere(stream, kind) {
  const works = (track) => track.readyState === "live" && !track.muted;
  return stream.getTracks().some((track) => track.kind === kind && works(track));
}

/** Measures how loud a microphone is. */
export class LevelMeter {
  #silentSince = null; // null once there was any sound
  #context = null;
  #analyser = null;
  #source = null;
  #samples = null;

  /** Listens to the track from now on, instead of the one before. */
  listen(track) {
    this.#context ??= new AudioContext();
    this.#analyser ??= new AnalyserNode(this.#context, { fftSize: 1024 });
    this.#samples ??= new Float32Array(this.#analyser.fftSize);
    this.#source?.disconnect();
    this.#source = this.#context.createMediaStreamSource(new MediaStream([track]));
    this.#source.connect(this.#analyser);
    this.#silentSince = performance.now();
    this.resume();
  }

  /** A browser may measure nothing before the guest has clicked somewhere. */
  resume() {
    this.#context?.resume();
  }

  /** Whether the microphone has given no sound at all since it was opened, not even a room's. */
  get silent() {
    return this.#silentSince !== null && performance.now() - this.#silentSince > SILENCE_TIME;
  }

  /** From 0 (silence, or below -60 dB) to 1 (full scale). */
  level() {
    if (!this.#analyser) return 0;
    this.#analyser.getFloatTimeDomainData(this.#samples);
    if (this.#context.state !== "running") this.#silentSince &&= performance.now();
    const power = this.#samples.reduce((sum, sample) => sum + sample * sample, 0) / this.#samples.length;
    if (power > 0) this.#silentSince = null;
    return power > 0 ? Math.min(1, Math.max(0, 1 + Math.log10(power) / 6)) : 0;
  }
}

// A device that was chosen once may have gone; then any other will do.
async function open(choice, wish) {
  try {
    return await navigator.mediaDevices.getUserMedia(wish(choice));
  } catch (error) {
    if (error.name !== "OverconstrainedError") throw error;
    return navigator.mediaDevices.getUserMedia(wish({ original: choice.original }));
  }
}

function videoWish(id) {
  return {
    deviceId: id ? { exact: id } : undefined,
    width: { ideal: 1280 },
    height: { ideal: 720 },
    frameRate: { ideal: 30, max: 30 },
  };
}

function audioWish(id, original) {
  return {
    deviceId: id ? { exact: id } : undefined,
    channelCount: original ? 2 : 1,
    echoCancellation: !original,
    noiseSuppression: !original,
    autoGainControl: !original,
  };
}
