// Pictures and sounds of known content, and what there is to see and hear in those that come back.

import { readFileSync, writeFileSync } from "node:fs";
import { PNG } from "pngjs";

const RATE = 48_000;

/** The camera's quarters: top left, top right, bottom left, bottom right. */
export const QUARTERS = [
  { rgb: [235, 30, 30], yuv: [90, 96, 216] },
  { rgb: [30, 200, 30], yuv: [128, 71, 69] },
  { rgb: [30, 30, 235], yuv: [60, 214, 112] },
  { rgb: [235, 235, 235], yuv: [218, 128, 128] },
];

/** Writes what a fake camera plays: a still picture of four coloured quarters. */
export function writeCamera(file, width, height) {
  const plane = (columns, rows, component) => {
    const bytes = Buffer.alloc(columns * rows);
    for (let row = 0; row < rows; row++) {
      const below = row >= rows / 2 ? 2 : 0;
      bytes.fill(QUARTERS[below].yuv[component], row * columns, row * columns + columns / 2);
      bytes.fill(QUARTERS[below + 1].yuv[component], row * columns + columns / 2, (row + 1) * columns);
    }
    return bytes;
  };
  const frame = [
    Buffer.from("FRAME\n"),
    plane(width, height, 0),
    plane(width / 2, height / 2, 1),
    plane(width / 2, height / 2, 2),
  ];
  writeFileSync(file, Buffer.concat([Buffer.from(`YUV4MPEG2 W${width} H${height} F30:1 Ip A1:1 C420jpeg\n`), ...frame, ...frame]));
}

/** Writes what a fake microphone plays: one second, which it repeats, of one tone at half the full scale. */
export function writeTone(file, hertz) {
  const samples = Buffer.alloc(RATE * 2);
  for (let at = 0; at < RATE; at++) {
    samples.writeInt16LE(Math.round(16_384 * Math.sin((2 * Math.PI * hertz * at) / RATE)), at * 2);
  }
  const header = Buffer.alloc(44);
  header.write("RIFF", 0);
  header.writeUInt32LE(36 + samples.length, 4);
  header.write("WAVEfmt ", 8);
  header.writeUInt32LE(16, 16);
  header.writeUInt16LE(1, 20);
  header.writeUInt16LE(1, 22);
  header.writeUInt32LE(RATE, 24);
  header.writeUInt32LE(RATE * 2, 28);
  header.writeUInt16LE(2, 32);
  header.writeUInt16LE(16, 34);
  header.write("data", 36);
  header.writeUInt32LE(samples.length, 40);
  writeFileSync(file, Buffer.concat([header, samples]));
}

/** A PNG file's size, and the colours in the middle of its quarters. */
export function readPicture(file) {
  const { width, height, data } = PNG.sync.read(readFileSync(file));
  const colour = (x, y) => [...data.subarray((y * width + x) * 4, (y * width + x) * 4 + 3)];
  const middles = [[1, 1], [3, 1], [1, 3], [3, 3]];
  return { width, height, quarters: middles.map(([x, y]) => colour(Math.floor((width * x) / 4), Math.floor((height * y) / 4))) };
}

/** Whether two colours are the same but for what conversion and compression do to them. */
export function alike(one, other) {
  return one.every((value, at) => Math.abs(value - other[at]) < 45);
}

/** A 16-bit WAV file's loudness (1 is full scale) and the part of its power that is in one tone, from 0 to 1. */
export function readSound(file, hertz) {
  const bytes = readFileSync(file);
  let at = 12;
  let channels, rate;
  while (bytes.toString("latin1", at, at + 4) !== "data") {
    if (bytes.toString("latin1", at, at + 4) === "fmt ") {
      channels = bytes.readUInt16LE(at + 10);
      rate = bytes.readUInt32LE(at + 12);
    }
    at += 8 + bytes.readUInt32LE(at + 4);
  }
  const frames = Math.floor(Math.min(bytes.readUInt32LE(at + 4), bytes.length - at - 8) / (2 * channels));
  let power = 0, cosine = 0, sine = 0;
  for (let frame = 0; frame < frames; frame++) {
    const sample = bytes.readInt16LE(at + 8 + frame * 2 * channels) / 32_768;
    const angle = (2 * Math.PI * hertz * frame) / rate;
    power += sample * sample;
    cosine += sample * Math.cos(angle);
    sine += sample * Math.sin(angle);
  }
  const seconds = frames / rate;
  return {
    seconds,
    channels,
    loudness: frames ? Math.sqrt(power / frames) : 0,
    inTone: power ? (2 * (cosine * cosine + sine * sine)) / frames / power : 0,
  };
}
