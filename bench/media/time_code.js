// The time of day in a picture, as ../time_code.h has it. Runs in browsers.

const CELLS = 24;
const CHECK_BITS = 4;
const RANGE = 2 ** (CELLS - CHECK_BITS); // milliseconds
const PART_OF_HEIGHT = 8;
const BRIGHT = 128;

const milliseconds = () => performance.timeOrigin + performance.now();

// The complement of the sum of the other bits in fours: no picture of one colour has it right.
function check(time) {
  let sum = 0;
  for (; time; time >>= CHECK_BITS) sum += time;
  return ~sum & (2 ** CHECK_BITS - 1);
}

/** A camera that films a moving picture which bears the time. */
export function openCamera(width, height, framesPerSecond) {
  const track = new MediaStreamTrackGenerator({ kind: "video" });
  const frames = track.writable.getWriter();
  const canvas = new OffscreenCanvas(width, height);
  const context = canvas.getContext("2d", { willReadFrequently: true });
  let count = 0;
  setInterval(() => {
    context.fillStyle = "#3a5a7a";
    context.fillRect(0, 0, width, height);
    context.fillStyle = "#d8b070";
    context.fillRect((count++ * 8) % width, height / 3, width / 6, height / 3);
    const time = Math.trunc(milliseconds() % RANGE);
    const code = time * 2 ** CHECK_BITS + check(time);
    for (let cell = 0; cell < CELLS; cell++) {
      context.fillStyle = (code >> (CELLS - 1 - cell)) & 1 ? "#fff" : "#000";
      const from = Math.floor((width * cell) / CELLS);
      context.fillRect(from, 0, Math.floor((width * (cell + 1)) / CELLS) - from, height / PART_OF_HEIGHT);
    }
    const frame = new VideoFrame(canvas, { timestamp: performance.now() * 1000 });
    frames.write(frame).catch(() => frame.close());
  }, 1000 / framesPerSecond);
  return track;
}

/** Calls `tell` with the age, in milliseconds, of each picture of the track as it leaves the decoder. */
export async function tellAges(track, tell) {
  const frames = new MediaStreamTrackProcessor({ track }).readable.getReader();
  for (let { value: frame } = await frames.read(); frame; { value: frame } = await frames.read()) {
    const now = milliseconds();
    const age = await ageAt(frame, now);
    frame.close();
    if (age !== null) tell(age);
  }
}

async function ageAt(frame, now) {
  const luma = new Uint8Array(frame.allocationSize());
  const [{ offset, stride }] = await frame.copyTo(luma);
  const { width, height } = frame.visibleRect;
  const row = offset + Math.floor(height / PART_OF_HEIGHT / 2) * stride;
  let code = 0;
  for (let cell = 0; cell < CELLS; cell++) {
    code = code * 2 + (luma[row + Math.floor((width * (2 * cell + 1)) / (2 * CELLS))] >= BRIGHT ? 1 : 0);
  }
  const time = code >> CHECK_BITS;
  return (code & (2 ** CHECK_BITS - 1)) === check(time) ? (now - time) % RANGE : null;
}
