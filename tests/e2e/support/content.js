// Pictures and sounds of known content, and what there is to see and hear in those that come back.

import { readFileSync, writeFileSync } from "node:fs";
import { PNG } from "pngjs";

const RATE = 48_000;

/** The camera's quarters: top left, top right, bottom left, bottom right. */
const QUARTERS = [
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
  const header = Buffer.from(`YUV4MPEG2 W${width} H${height} F30:1 Ip A1:1 C420jpeg\n`);
  const colours = [1, 2].map((component) => plane(width / 2, height / 2, component));
  const frame = [Buffer.from("FRAME\n"), plane(width, height, 0), ...colours];
  writeFileSync(file, Buffer.concat([header, ...frame, ...frame]));
}

/** Writes what a fake microphone plays: one second, which it repeats, of one tone left and one right. */
export function writeTones(file, tones) {
  const samples = Buffer.alloc(RATE * 4);
  for (let at = 0; at < RATE; at++) {
    tones.forEach((hertz, channel) => {
      const sample = Math.round(16_384 * Math.sin((2 * Math.PI * hertz * at) / RATE));
      samples.writeInt16LE(sample, at * 4 + channel * 2);
    });
  }
  const header = Buffer.alloc(44);
  header.write("RIFF", 0);
  header.writeUInt32LE(36 + samples.length, 4);
  header.write("WAVEfmt ", 8);
  header.writeUInt32LE(16, 16);
  header.writeUInt16LE(1, 20);
  header.writeUInt16LE(2, 22);
  header.writeUInt32LE(RATE, 24);
  header.writeUInt32LE(RATE * 4, 28);
  header.writeUInt16LE(4, 32);
  header.writeUInt16LE(16, 34);
  header.write("data", 36);
  header.writeUInt32LE(samples.length, 40);
  writeFileSync(file, Buffer.concat([header, samples]));
}

/** A PNG file's size, and the colours in the middle of its quarters. */
export function readPicture(file) {
  const { width, height, data } = PNG.sync.read(readFileSync(file));
  const colour = (x, y) => [...data.subarray((y * width + x) * 4, (y * width + x) * 4 + 3)];
  const [left, right] = [1, 3].map((part) => Math.floor((width * part) / 4));
  const [top, bottom] = [1, 3].map((part) => Math.floor((height * part) / 4));
  const quarters = [colour(left, top), colour(right, top), colour(left, bottom), colour(right, bottom)];
  return { width, height, quarters };
}

/** Whether the colours are those of the camera's quarters. */
export function areCameras(colours) {
  return colours.every((colour, at) => alike(colour, QUARTERS[at].rgb));
}

/** Whether two colours are the same but for what conversion and compression do to them. */
export function alike(one, other) {
  return one.every((value, at) => Math.abs(value - other[at]) < 45);
}

/**
 * A 16-bit stereo WAV file's channels: of each the part of its power that is in each of the tones, from 0
 * to 1. Looked at in short pieces: a gap between two changes the phase, and the studio plays what has piled up
 * a little faster.
 */
export function readSound(file, tones) {
  const bytes = readFileSync(file);
  const start = bytes.indexOf("data") + 8;
  const piece = RATE / 50;
  const pieces = Math.floor((bytes.length - start) / 4 / piece);
  return [0, 1].map((channel) => {
    const inTones = tones.map(() => 0);
    let power = 0;
    for (let frame = 0; frame < pieces * piece; frame += piece) {
      const sample = (at) => bytes.readInt16LE(start + (frame + at) * 4 + channel * 2) / 32_768;
      for (let at = 0; at < piece; at++) power += sample(at) ** 2;
      tones.forEach((hertz, which) => {
        let [cosine, sine] = [0, 0];
        for (let at = 0; at < piece; at++) {
          const angle = (2 * Math.PI * hertz * at) / RATE;
          cosine += sample(at) * Math.cos(angle);
          sine += sample(at) * Math.sin(angle);
        }
        inTones[which] += (2 * (cosine * cosine + sine * sine)) / piece;
      });
    }
    return inTones.map((part) => (power ? part / power : 0));
  });
}
