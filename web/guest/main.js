// The guests' page: joins what the guest does, what the room tells and what the page shows.

import { explain as explainLink, readConfig, readLink } from "./link.js";
import { oncePerFrame } from "./frame.js";
import {
  explain as explainMedia,
  isThere,
  LevelMeter,
  listDevices,
  openCamera,
  openScreen,
  openTrack,
  secure,
} from "./media.js";
import { readPreferences, readableOn } from "./preferences.js";
import { Room } from "./room.js";
import { parse } from "./signals.js";
import * as show from "./state.js";
import { Talk, sendLines } from "./talk.js";

const LEVEL_TIME = 100;
const LOOK_TIME = 1_000;
const STORED = "guest";

const page = new Proxy({}, { get: (_, id) => document.getElementById(id) });
const link = readLink(location);
const meter = new LevelMeter();
const chat = new Talk(page.chat, (mark) => signal("fav", mark));
const comments = new Talk(page.comments, (mark) => signal("fav", mark));

let state = show.initial;
let preferences = {}; // the studio's
let name = "";
let stream = null; // the guest's camera and microphone
let room = null;
let attempt = 0; // counts the rings, to tell whether one was given up meanwhile

// ---- The guest's choices, kept for the next visit --------------------------

function readStored() {
  try {
    return parse(localStorage.getItem(STORED));
  } catch {
    return {}; // the browser keeps nothing for this page
  }
}

function store() {
  const { camera, microphone, original } = wishes();
  try {
    localStorage.setItem(
      STORED,
      JSON.stringify({ name, camera, microphone, original, mono: page.mono.checked }),
    );
  } catch {
    // as above
  }
}

function wishes() {
  return { camera: page.camera.value, microphone: page.microphone.value, original: page.original.checked };
}

// ---- Camera and microphone -------------------------------------------------

async function prepare() {
  fault("");
  page.retry.hidden = true;
  if (!link) return fault("This link is not complete. Open the whole link that the host has sent you.");
  if (!secure()) return fault("Your browser gives no camera to this page. Open it with https:// in front.");
  say(page["self-wait"], "Your browser asks for your camera and microphone. Please allow both.");
  try {
    stream = await openCamera(stream ? wishes() : readStored());
  } catch (error) {
    say(page["self-wait"], "No camera");
    page.retry.hidden = false;
    return fault(explainMedia(error));
  }
  say(page["self-wait"], "");
  page.self.srcObject = stream;
  page.ring.disabled = false;
  for (const track of stream.getTracks()) adopt(track);
  await fillDevices();
}

function adopt(track) {
  if (track.kind === "audio") meter.listen(track);
  // The device was pulled out: go on with another.
  track.onended = () => change(track.kind);
  track.onmute = track.onunmute = lookAtDevices;
  lookAtDevices();
  apply();
}

function lookAtDevices() {
  if (!stream) return;
  const microphone = !isThere(stream, "audio") ? "gone" : meter.silent ? "silent" : "on";
  update(show.seen(state, { microphone, camera: isThere(stream, "video") ? "on" : "gone" }));
}

async function fillDevices() {
  const devices = await listDevices();
  for (const kind of ["camera", "microphone"]) {
    const track = (kind === "camera" ? stream.getVideoTracks() : stream.getAudioTracks())[0];
    const current = track?.getSettings().deviceId;
    page[kind].replaceChildren(
      ...devices[kind].map(({ id, label }) => new Option(label, id, false, id === current)),
    );
  }
}

/** Puts the device that is chosen now in the place of the one before, also in mid-show. */
async function change(kind) {
  // First let go of the one before: a phone opens only one camera at a time.
  for (const old of stream.getTracks().filter((each) => each.kind === kind)) {
    old.onended = null;
    old.stop();
    stream.removeTrack(old);
  }
  try {
    const track = await openTrack(kind, wishes());
    stream.addTrack(track);
    adopt(track);
    await room?.replaceTrack(track);
    fault("");
  } catch (error) {
    fault(explainMedia(error));
    page.retry.hidden = false;
    page.ring.disabled = true;
  }
  lookAtDevices();
  await fillDevices();
  store();
}

// ---- The room --------------------------------------------------------------

async function ring() {
  name = page.name.value.trim();
  if (!name || state.phase !== "lobby") return;
  store();
  meter.resume();
  fault("");
  notice("");
  update(show.connecting(state));
  const mine = ++attempt;
  try {
    const config = await readConfig(location);
    if (attempt !== mine) return;
    room = new Room({ ...link, ...config }, name, events);
    apply();
    room.enter(stream);
  } catch {
    if (attempt !== mine) return;
    leave();
    fault("The show cannot be reached. Check your network and try again.");
  }
}

function leave(words = "", now = false) {
  attempt++;
  room?.close(now);
  room = null;
  page.show.srcObject = null;
  update(show.left(state));
  notice(words);
}

const events = {
  entered: (streamId) => update(show.entered(state, streamId)),
  screenId: (screenId) => update(show.screen(state, screenId)),
  lost: () => update(show.lost(state)),
  mended: () => update(show.mended(state)),
  showEnded: () => update(show.showEnded(state)),
  flows: (flows) => update(show.seen(state, { flows })),
  show(picture) {
    page.show.srcObject = picture;
    if (picture) play();
    draw();
  },
  refused(error) {
    leave();
    fault(explainLink(error));
  },
  signal(type, data, from) {
    if (show.takesOut(state, type, data)) {
      leave("The host has taken you out of the show. Thank you for being there! You can ring again.");
      return;
    }
    update(show.signalled(state, type, data, from));
    if (type === "start") askForMono();
    else if (type === "comment") comments.receive(data, from);
    else if (type === "chat") chat.receive(data, from);
    else if (type === "fav") for (const talk of [chat, comments]) talk.receiveMark(data);
    else if (type === "prefUpdate") prefer(readPreferences(parse(data)));
  },
};

function signal(type, payload) {
  return room?.signal(type, JSON.stringify(payload)) ?? false;
}

// The studio forgets the wish each time it brings somebody in.
function askForMono() {
  if (page.mono.checked && state.admitted) signal("mono", { mono: "yes" });
}

function prefer(wishes) {
  preferences = { ...preferences, ...wishes };
  draw();
}

async function share() {
  if (state.screenId !== null) {
    room.stopScreen();
    return;
  }
  const here = room;
  try {
    const screen = await openScreen();
    const [picture] = screen.getVideoTracks();
    picture.contentHint = "detail";
    picture.onended = () => here.stopScreen();
    if (room === here) await here.shareScreen(screen);
    else picture.stop();
  } catch (error) {
    // Whoever closes the browser's own question has changed their mind, and knows it.
    if (error.name !== "NotAllowedError") fault(`Your screen could not be shared: ${error.message}`);
  }
}

// ---- The page --------------------------------------------------------------

function update(next) {
  if (next === state) return;
  state = next;
  apply();
  draw();
}

// What others see and hear of the guest follows the state at once.
function apply() {
  // Switched off at its source; in the lobby the microphone is open for the level meter.
  const open = show.microphoneOpen(state);
  for (const track of stream?.getAudioTracks() ?? []) track.enabled = open || state.phase === "lobby";
  room?.setSends("audio", open && state.microphone !== "gone");
  room?.setSends("video", state.camera !== "gone");
  room?.watch(state.admitted);
}

// What the guest sees follows with the next picture, however many signals come until then.
const draw = oncePerFrame(() => {
  const inRoom = state.phase !== "lobby";
  const { name: word, title, text } = inRoom ? show.describe(state) : { name: "lobby", title: "", text: "" };
  document.body.dataset.state = word;
  turnTo(inRoom ? "room" : "lobby");
  say(page["status-title"], title);
  say(page["status-text"], text);
  // The lobby has no button that would take the guest's own mute off.
  const told = inRoom ? state : { ...state, selfMuted: false };
  const own = [show.describeMicrophone, show.describeCamera, show.describeScreen].map((of) => of(told));
  say(page.own, own.filter(Boolean).join(" "));
  drawPreferences();
  document.title = title ? `${title} - ${page.title.textContent}` : page.title.textContent;

  page.show.hidden = !page.show.srcObject;
  page["show-wait"].hidden = Boolean(page.show.srcObject);
  page.viewers.hidden = state.viewers === null;
  say(page.viewers, state.viewers === null ? "" : `${state.viewers} watching`);

  say(page.mute, state.remoteMuted ? "Muted by the host" : state.selfMuted ? "Unmute" : "Mute");
  page.mute.setAttribute("aria-disabled", String(state.remoteMuted));
  say(page.share, state.screenId === null ? "Share screen" : "Stop sharing");
  page.share.disabled = state.phase !== "in" || !navigator.mediaDevices?.getDisplayMedia;
});

// Another screen is read from its top, where the guest's state and the reason for it stand.
function turnTo(screen) {
  if (document.body.dataset.screen === screen) return;
  document.body.dataset.screen = screen;
  // What had the focus is gone; who uses the keyboard goes on here.
  (screen === "room" ? page.mute : page.ring).focus({ preventScroll: true });
  scrollTo(0, 0);
}

function drawPreferences() {
  const { title, notice: words, accent } = preferences;
  if (title !== undefined) say(page.title, title);
  if (words !== undefined) notice(words);
  if (accent !== undefined) {
    document.documentElement.style.setProperty("--accent", accent);
    document.documentElement.style.setProperty("--on-accent", readableOn(accent));
  }
  preferences = {};
}

// A live region speaks whenever it is written to, so it is written to only when it changes.
function say(element, words) {
  if (element.textContent !== words) element.textContent = words;
}

function fault(words) {
  say(page.fault, words);
  page.fault.hidden = !words;
}

function notice(words) {
  say(page.notice, words);
}

function play() {
  page.show.play().then(
    () => (page["show-play"].hidden = true),
    (error) => (page["show-play"].hidden = error.name !== "NotAllowedError"),
  );
}

page["ring-form"].addEventListener("submit", (event) => {
  event.preventDefault();
  ring();
});
page.retry.addEventListener("click", prepare);
sendLines(page["chat-form"], (text) => {
  // Shown at once; the copy that the room sends back has the same uuid.
  const line = { name, text, uuid: crypto.randomUUID().toUpperCase() };
  if (!signal("chat", line)) return false;
  chat.showOwn(line);
  return true;
});
page.leave.addEventListener("click", () => leave("You have left the show. You can ring again."));
page.share.addEventListener("click", share);
page["show-play"].addEventListener("click", play);
page.mute.addEventListener("click", () => {
  if (!state.remoteMuted) update({ ...state, selfMuted: !state.selfMuted });
});
page.settings.addEventListener("click", () => {
  const expanded = page.settings.getAttribute("aria-expanded") !== "true";
  page.settings.setAttribute("aria-expanded", String(expanded));
});
page.camera.addEventListener("change", () => change("video"));
for (const id of ["microphone", "original"]) page[id].addEventListener("change", () => change("audio"));
page.mono.addEventListener("change", () => {
  store();
  askForMono();
});
navigator.mediaDevices?.addEventListener("devicechange", () => stream && fillDevices());
for (const type of ["online", "offline"]) addEventListener(type, () => room?.checkNetwork());
addEventListener("pagehide", () => leave("", true));

const stored = readStored();
page.name.value = stored.name ?? "";
page.original.checked = stored.original === true;
page.mono.checked = stored.mono === true;
setInterval(() => (page.level.value = meter.level()), LEVEL_TIME);
setInterval(lookAtDevices, LOOK_TIME);
prepare();
