// The guests' page: joins what the guest does, what the room tells and what the page shows.

import { keepAwake } from "./awake.js";
import { Devices } from "./devices.js";
import { explain as explainLink, readConfig, readLink, socketUrl } from "./link.js";
import { oncePerFrame } from "./frame.js";
import { forgetSeat, keepChoices, keepSeat, leaveSeat, readChoices, seatOfGuest, seatOfTab } from "./kept.js";
import { Lobby, explainRefusal } from "./lobby.js";
import { openScreen } from "./media.js";
import { readPreferences, readableOn } from "./preferences.js";
import { Room } from "./room.js";
import { parse } from "./signals.js";
import * as show from "./state.js";
import { Talk, sendLines } from "./talk.js";

const page = new Proxy({}, { get: (_, id) => document.getElementById(id) });
const link = readLink(location);
const chat = new Talk(page.chat, (mark) => signal("fav", mark));
const comments = new Talk(page.comments, (mark) => signal("fav", mark));

let state = show.initial;
let preferences = {}; // the studio's
let name = "";
let lobby = null; // where the link is an invitation
let seatKey = null; // of the seat that the guest has, or had
let room = null;
let returning = false; // to a seat, by itself
let attempt = 0; // counts the rings, to tell whether one was given up meanwhile

// ---- Camera and microphone -------------------------------------------------

const devices = new Devices(page, {
  opened() {
    page.ring.disabled = false;
    comeBack();
  },
  track(track) {
    apply();
    room?.replaceTrack(track);
  },
  chosen: store,
  standing: (standing) => update(show.seen(state, standing)),
  fault(words, canTry) {
    fault(words);
    page.retry.hidden = !canTry;
    page.ring.disabled = words !== "" || !devices.stream;
  },
  notice,
});

function prepare() {
  if (!link) return fault("This link is not complete. Open the whole link that the host has sent you.");
  devices.open(readChoices());
}

function store() {
  keepChoices({ name: page.name.value.trim(), ...devices.wishes, mono: page.mono.checked });
}

// ---- The way in -------------------------------------------------------------

async function ring() {
  name = page.name.value.trim();
  if (!name || state.phase !== "lobby") return;
  store();
  devices.meter.resume();
  allowSound();
  fault("");
  notice("");
  update(show.connecting(state));
  if (link.invite) {
    seatKey = seatOfGuest(link.invite, name);
    if (seatKey) openLobby().comeBack(seatKey);
    else openLobby().ask(link.invite, name);
    return;
  }
  const mine = ++attempt;
  try {
    const config = await readConfig(location);
    if (attempt === mine) enter({ ...link, ...config });
  } catch {
    if (attempt !== mine) return;
    leave();
    fault("The show cannot be reached. Check your network and try again.");
  }
}

// A page that was reloaded goes back to its seat by itself.
function comeBack() {
  if (!link.invite || state.phase !== "lobby") return;
  seatKey = seatOfTab(link.invite);
  if (!seatKey) return;
  notice("You are coming back to your place in the show.");
  update(show.connecting(state));
  returning = true;
  openLobby().comeBack(seatKey);
}

function openLobby() {
  lobby?.close();
  lobby = new Lobby(socketUrl("lobby", location), lobbyEvents);
  tellLobby();
  return lobby;
}

function enter(way) {
  room = new Room(way, name, events);
  apply();
  room.enter(devices.stream, { patient: returning });
}

/** Back to where the guest rings. `now`: the page itself goes away, and perhaps comes back. */
function leave(words = "", now = false) {
  attempt++;
  room?.close(now);
  lobby?.close();
  room = lobby = null;
  returning = false;
  page.show.srcObject = page.sound.srcObject = null;
  page.show.removeAttribute("poster");
  update(show.left(state));
  notice(words);
}

const lobbyEvents = {
  seat({ key, name: called, room: id, token, server, iceServers }) {
    seatKey = key;
    keepSeat({ invite: link.invite, name: page.name.value.trim(), key });
    name = called;
    update({ ...state, seated: true });
    const way = { url: socketUrl(server, location), room: id, token, iceServers, seatKey: key };
    if (room) room.move(way);
    else enter(way);
  },
  program: (program) => update({ ...state, program }),
  recording: (recording) => update({ ...state, recording }),
  alone: (alone) => update({ ...state, alone }),
  removed: takenOut,
  refused(reason) {
    const unknown = reason === "seat" && !state.seated;
    if (reason === "elsewhere") leaveSeat();
    else if (reason === "seat") forgetSeat(seatKey);
    // The seat of an earlier visit is gone: another will do.
    if (unknown && !returning) return openLobby().ask(link.invite, name);
    leave();
    fault(explainRefusal(reason));
  },
};

function takenOut() {
  forgetSeat(seatKey);
  leave("The host has taken you out of the show. Thank you for being there! You can ring again.");
}

// ---- The room --------------------------------------------------------------

const events = {
  entered(streamId) {
    if (returning) notice("");
    update(show.entered(state, streamId));
  },
  screenId: (screenId) => update(show.screen(state, screenId)),
  lost: () => update(show.lost(state)),
  mended() {
    update(show.mended(state));
    lobby?.connectAnew();
  },
  showEnded: () => update(show.showEnded(state)),
  flows: (flows) => update(show.seen(state, { flows })),
  show: (stream) => play(link.invite ? page.sound : page.show, stream),
  program: (stream) => play(page.show, stream),
  refused(error) {
    lobby?.leave();
    forgetSeat(seatKey);
    leave();
    fault(explainLink(error));
  },
  signal(type, data, from) {
    if (show.takesOut(state, type, data)) {
      takenOut();
      return;
    }
    update(show.signalled(state, type, data, from));
    if (type === "start") askForMono();
    else if (type === "comment") comments.receive(data, writerOf(data, from));
    else if (type === "chat") chat.receive(data, writerOf(data, from));
    else if (type === "fav") for (const talk of [chat, comments]) talk.receiveMark(data);
    else if (type === "prefUpdate") prefer(readPreferences(parse(data)));
  },
};

// In a seat all lines come from the studio, which goes by the writers' names.
function writerOf(data, from) {
  return link.invite ? String(parse(data).name).slice(0, 100) : from;
}

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
  for (const track of devices.stream?.getAudioTracks() ?? []) track.enabled = open || state.phase === "lobby";
  room?.setSends("audio", open && state.microphone !== "gone");
  room?.setSends("video", state.camera !== "gone");
  room?.watch(state.admitted);
  room?.watchProgram(state.program);
  room?.setInStep(!state.live);
  keepAwake(state.phase === "in" || state.phase === "lost");
  tellLobby();
}

// What the host is to know of this page.
function tellLobby() {
  lobby?.tell({
    hidden: document.hidden,
    camera: state.camera === "gone" ? "lost" : "on",
    microphone: state.microphone === "gone" ? "lost" : show.isQuiet(state) ? "off" : "on",
  });
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
  own.push(show.describeAlone(state));
  say(page.own, own.filter(Boolean).join(" "));
  drawPreferences();
  document.title = title ? `${title} - ${page.title.textContent}` : page.title.textContent;

  page.show.hidden = !page.show.srcObject;
  const shown = state.seated ? page.show.videoWidth > 0 : Boolean(page.show.srcObject);
  say(page["show-wait"], show.describePicture(state, shown));
  page.recording.hidden = !state.recording;
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

function play(element, stream) {
  if (stream) keepPicture(element);
  element.srcObject = stream;
  if (stream) hear();
  draw();
}

// The last picture stands until the new stream has its first: an element with another stream is black at first.
function keepPicture(video) {
  if (!video.videoWidth) return;
  const canvas = document.createElement("canvas");
  canvas.width = video.videoWidth;
  canvas.height = video.videoHeight;
  canvas.getContext("2d").drawImage(video, 0, 0);
  video.poster = canvas.toDataURL("image/jpeg");
}

// Where the browser plays nothing that the guest has not asked for, it is offered.
function hear() {
  const elements = [page.show, page.sound].filter(({ srcObject }) => srcObject);
  Promise.all(elements.map((element) => element.play())).then(
    () => (page["show-play"].hidden = true),
    (error) => (page["show-play"].hidden = error.name !== "NotAllowedError"),
  );
}

// What begins to play while the guest taps may play other things later.
function allowSound() {
  for (const element of [page.show, page.sound]) element.play().catch(() => {});
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
page.leave.addEventListener("click", () => {
  lobby?.leave();
  forgetSeat(seatKey);
  leave("You have left the show. You can ring again.");
});
page.share.addEventListener("click", share);
page["show-play"].addEventListener("click", hear);
page.show.addEventListener("resize", draw); // also when the first picture has come
page.mute.addEventListener("click", () => {
  if (!state.remoteMuted) update({ ...state, selfMuted: !state.selfMuted });
});
page.settings.addEventListener("click", () => {
  const expanded = page.settings.getAttribute("aria-expanded") !== "true";
  page.settings.setAttribute("aria-expanded", String(expanded));
});
page.mono.addEventListener("change", () => {
  store();
  askForMono();
});
for (const type of ["online", "offline"]) addEventListener(type, () => room?.checkNetwork());
addEventListener("online", () => lobby?.connectAnew());
document.addEventListener("visibilitychange", () => {
  tellLobby();
  if (document.hidden) return;
  lobby?.wake();
  room?.checkNetwork();
});
addEventListener("pagehide", () => leave("", true));
// A page that the browser had laid aside has left, and comes back like one that is loaded anew.
addEventListener("pageshow", ({ persisted }) => persisted && devices.stream && comeBack());

page.show.muted = Boolean(link?.invite); // its sound then comes by itself
const stored = readChoices();
page.name.value = stored.name ?? "";
page.original.checked = stored.original === true;
page.mono.checked = stored.mono === true;
prepare();
