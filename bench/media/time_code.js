// The time of day in a picture, as ../time_code.h has it. Runs in browsers.

const CELLS = 24;
const CHECK_BITS = 4;
const RANGE = 2 ** (CELLS - CHECK_BITS); // milliseconds
const PART_OF_HEIGHT = 8;
const BRIGHT = 128;
const BARS = ["#c0c0c0", "#c0c000", "#00c0c0", "#00c000", "#c000c0", "#c00000", "#0000c0"];
const PARTS_OF_SNOW = 4; // of the picture's width and height

const milliseconds = () => performance.timeOrigin + performance.now();

// The complement of the sum of the other bits in fours: no picture of one colour has it right.
function check(time) {
  let sum = 0;
  for (; time; time >>= CHECK_BITS) sum += time;
  return ~sum & (2 ** CHECK_BITS - 1);
}

/** A camera that films what the studio's test picture shows, moving bars and snow, and the time. */
export function openCamera(width, height, framesPerSecond) {
  const track = new MediaStreamTrackGenerator({ kind: "video" });
  const frames = track.writable.getWriter();
  const canvas = new OffscreenCanvas(width, height);
  const context = canvas.getContext("2d", { willReadFrequently: true });
  const snow = context.createImageData(width / PARTS_OF_SNOW, height / PARTS_OF_SNOW);
  const flakes = new Uint32Array(snow.data.buffer);
  let count = 0;
  setInterval(() => {
    const moved = (count++ * 2) % width;
    for (let bar = 0; bar < 2 * BARS.length; bar++) {
      context.fillStyle = BARS[bar % BARS.length];
      const from = Math.floor((width * bar) / BARS.length) - moved;
      context.fillRect(from, 0, Math.ceil(width / BARS.length), height);
    }
    for (let flake = 0; flake < flakes.length; flake++) {
      flakes[flake] = 0xff000000 | (Math.trunc(Math.random() * 256) * 0x010101);
    }
    context.putImageData(snow, width - snow.width - moved, height - snow.height);
    context.putImageData(snow, 2 * width - snow.width - moved, height - snow.height);
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
