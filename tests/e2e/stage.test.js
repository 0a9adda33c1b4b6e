// Three guests in one show, two in Chromium and one in Firefox, each with a tone: who hears whom.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { hears, inState, launch } from "./support/browser.js";
import { launchFirefox } from "./support/firefox.js";
import { Studio, isHeard, isSilent } from "./support/studio.js";

const TONES = { Ada: 660, Bob: 880, Cem: 1_100 };
const SHOW = 520;
const HOST = 1_480;
const tone = (hertz) => `audiotestsrc is-live=true freq=${hertz} volume=0.1`;
const PICTURE = "videotestsrc is-live=true ! video/x-raw,width=320,height=180,framerate=10/1 ! identity";

let studio, chromium, firefox;
const pages = {};
const ids = {};

before(async () => {
  [studio, chromium, firefox] = await Promise.all([
    Studio.start("--no-log", "--show", `${PICTURE} ${tone(SHOW)}`, "--microphone", tone(HOST)),
    launch(),
    launchFirefox({ hertz: TONES.Cem }),
  ]);
  for (const name of ["Ada", "Bob"]) {
    pages[name] = await chromium.open("about:blank", { name });
    await pages[name].addInitScript(sound, TONES[name]);
    await pages[name].goto(studio.link);
  }
  pages.Cem = await firefox.open(studio.link, { name: "Cem" });
  for (const [name, page] of Object.entries(pages)) {
    await page.waitForSelector("#ring:enabled");
    const rung = studio.now;
    await page.click("#ring");
    ids[name] = (await studio.report("ring", { name }, rung)).guest;
    await studio.admit(ids[name]);
    await inState(page, "green-room");
  }
});

after(async () => {
  await Promise.all([chromium?.close(), firefox?.close()]);
  await studio?.close();
});

/** In the page, before its own scripts: the microphone hears a tone. */
function sound(hertz) {
  const devices = MediaDevices.prototype;
  const open = devices.getUserMedia;
  devices.getUserMedia = async function (wanted) {
    const stream = await open.call(this, wanted);
    if (!wanted.audio) return stream;
    const context = new AudioContext();
    const out = new MediaStreamAudioDestinationNode(context);
    const quieter = new GainNode(context, { gain: 0.1 });
    const tone = new OscillatorNode(context, { frequency: hertz });
    tone.connect(quieter).connect(out);
    tone.start();
    for (const track of stream.getAudioTracks()) (stream.removeTrack(track), track.stop());
    stream.addTrack(out.stream.getAudioTracks()[0]);
    return stream;
  };
}

/** Checks what each guest hears, and that it is nothing else. Who is not named is not asked. */
async function hear(wanted) {
  const all = [...Object.values(TONES), SHOW, HOST];
  const check = async ([name, tones]) => {
    const unheard = all.filter((each) => !tones.includes(each));
    await hears(pages[name], tones, unheard).catch((cause) => assert.fail(`${name}: ${cause.message}`));
  };
  await Promise.all(Object.entries(wanted).map(check));
}

/** Has the page watch for silence; resolves with what ends the watch and tells the longest there was, in ms. */
async function listenOn(page) {
  await page.evaluate(() => {
    const context = new AudioContext();
    const analyser = new AnalyserNode(context, { fftSize: 1024 });
    context.createMediaStreamSource(document.querySelector("#sound").srcObject).connect(analyser);
    const samples = new Float32Array(1024);
    let [longest, loud] = [0, 0];
    const timer = setInterval(() => {
      analyser.getFloatTimeDomainData(samples);
      const now = context.currentTime;
      if (Math.max(...samples) > 0.02 || loud === 0) loud = now;
      longest = Math.max(longest, now - loud);
    }, 10);
    window.silence = () => (clearInterval(timer), context.close(), Math.round(longest * 1_000));
  });
  return () => page.evaluate(() => window.silence());
}

test("everybody hears everybody but themselves, as their place has it", async () => {
  const { Ada, Bob, Cem } = TONES;
  // Off air all are in one conversation.
  await hear({ Ada: [Bob, Cem, SHOW, HOST], Bob: [Ada, Cem, SHOW, HOST], Cem: [Ada, Bob, SHOW, HOST] });

  for (const command of [`live ${ids.Ada}`, `live ${ids.Bob}`, "golive"]) studio.say(command);
  await Promise.all([inState(pages.Ada, "on-air"), inState(pages.Bob, "on-air")]);
  await hear({ Ada: [Bob, SHOW, HOST], Bob: [Ada, SHOW, HOST], Cem: [Ada, Bob, SHOW, HOST] });
  await studio.guest(ids.Cem, "the green room is not let through", isSilent);

  // Who is spoken to may answer; the air hears neither.
  studio.say(`talk ${ids.Cem}`);
  await hears(pages.Cem, [HOST], [Cem]);
  await hear({ Ada: [Bob, SHOW], Bob: [Ada, SHOW] });
  await studio.guest(ids.Cem, "may answer", isHeard);
  studio.say("talk off");
  await hear({ Ada: [Bob, SHOW, HOST] });

  studio.say(`mute ${ids.Bob}`);
  await hear({ Ada: [SHOW, HOST], Cem: [Ada, SHOW, HOST] });
  studio.say(`unmute ${ids.Bob}`);
  studio.say(`fade ${ids.Bob} -60`);
  await hear({ Cem: [Ada, SHOW, HOST] });
  studio.say(`fade ${ids.Bob} 0`);
  await hear({ Ada: [Bob, SHOW, HOST], Cem: [Ada, Bob, SHOW, HOST] });
});

test("a line goes round once, and who is taken out leaves no gap for the others", async () => {
  await pages.Cem.type("#chat-text", "Hello all");
  const sent = studio.now;
  await pages.Cem.click("#chat-form button");
  assert.equal((await studio.report("chat", { guest: ids.Cem }, sent)).name, "Cem");
  const { uuid } = await studio.ask("chat Host: Hello Cem", "chatSent"); // by then the first is there as well
  for (const page of Object.values(pages)) {
    await page.waitForSelector(`#chat [data-uuid="${uuid}"]`);
    const lines = await page.evaluate(() =>
      [...document.querySelectorAll("#chat .said")].map((line) => line.textContent),
    );
    const [first] = lines;
    assert.equal(lines.length, 2, lines.join());
    assert.match(first, /Cem.*Hello all/s);
  }

  const watches = await Promise.all([listenOn(pages.Ada), listenOn(pages.Bob)]);
  await studio.ask(`remove ${ids.Cem}`, "gone", { guest: ids.Cem });
  await inState(pages.Cem, "lobby");
  await hear({ Ada: [TONES.Bob, SHOW, HOST], Bob: [TONES.Ada, SHOW, HOST] });
  // A machine with three browsers on it loses some packets' time by itself; a connection made anew takes longer.
  for (const end of watches) {
    const gap = await end();
    assert.ok(gap < 800, `nobody else hears a gap: ${gap} ms`);
  }
});
