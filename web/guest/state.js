// What the guest is told of the show, and what follows from it. Nothing here touches the page.

import { parse } from "./signals.js";

/** The state of a guest who has not rung yet. */
export const initial = Object.freeze({
  phase: "lobby", // "lobby", "connecting", "in" (in the room) or "lost" (being connected again)
  streamId: null,
  screenId: null,
  admitted: false, // the host has brought the camera in
  screenAdmitted: false,
  live: false, // moved from the green room into the show
  screenLive: false,
  remoteMuted: false,
  selfMuted: false,
  seated: false, // has a seat of the lobby's, so that the host is known to put the guest back in it
  program: null, // where the picture is for whoever is in, `{ feed }` and more, as the lobby tells
  recording: false,
  alone: false, // the host hears this guest and nobody else
  offAirAudio: false,
  broadcastIsLive: false,
  recordOnly: false,
  viewers: null,
  studio: null, // the sender of the signals that brought the guest in
  microphone: "on", // or "silent" or "gone"
  camera: "on", // or "gone"
  flows: Object.freeze({ audio: "sent", video: "sent", show: true }), // as Room tells
});

// What does not depend on the guest's place in a room.
const own = ({ selfMuted, microphone, camera }) => ({ selfMuted, microphone, camera });
// What the lobby has told.
const told = ({ seated, program, recording, alone }) => ({ seated, program, recording, alone });
const notAdmitted = { admitted: false, screenAdmitted: false, live: false, screenLive: false };

export const connecting = (state) => ({ ...state, phase: "connecting" });
/** In the room, also anew: what was known of an earlier place in it no longer holds. */
export const entered = (state, streamId) => {
  return { ...initial, ...own(state), ...told(state), phase: "in", streamId };
};
export const lost = (state) => ({ ...state, phase: "lost" });
export const mended = (state) => ({ ...state, phase: "in" });
export const left = (state) => ({ ...initial, ...own(state) });
/** The screen is published under the id, or, with null, no longer. */
export const screen = (state, screenId) => ({ ...state, screenId, screenAdmitted: false, screenLive: false });
/** The studio's own stream has ended: whoever takes its place has to bring the guests in anew. */
export const showEnded = (state) => ({ ...state, ...notAdmitted });

/** With what is known now of the devices or of the flow of media; the same object when it is nothing new. */
export function seen(state, news) {
  const isNew = ([key, value]) => JSON.stringify(state[key]) !== JSON.stringify(value);
  return Object.entries(news).some(isNew) ? { ...state, ...news } : state;
}

/** The state after a signal, `from` its sender; the same object when the signal does not concern it. */
export function signalled(state, type, data, from) {
  switch (type) {
    case "start":
      if (data === state.streamId) return { ...ofStudio(state, from), admitted: true };
      if (data === state.screenId) return { ...ofStudio(state, from), screenAdmitted: true };
      return state;
    case "stop":
      // The camera's own "stop" is `takesOut`.
      return data === state.screenId ? screen(state, state.screenId) : state;
    case "audio_setting":
      return heardOfAudio(state, parse(data), from);
    case "viewer_count": {
      const { viewer_count: viewers } = parse(data);
      return typeof viewers === "string" ? { ...state, viewers } : state;
    }
    default:
      return state;
  }
}

/** Whether the signal takes this guest out of the show. */
export function takesOut(state, type, data) {
  return type === "stop" && state.streamId !== null && data === state.streamId;
}

// A studio that takes another's place knows nothing of whom that one brought in.
function ofStudio(state, from) {
  return state.studio === from ? state : { ...state, ...notAdmitted, studio: from };
}

function heardOfAudio(state, { subs, broadcastIsLive, recordOnly }, from) {
  if (!Array.isArray(subs)) return state;
  const next = {
    ...ofStudio(state, from),
    broadcastIsLive: broadcastIsLive === true,
    recordOnly: recordOnly === true,
  };
  const entry = (id) => id !== null && subs.find((sub) => sub?.id === id);
  const camera = entry(state.streamId);
  if (camera) {
    next.live = camera.on === true;
    next.remoteMuted = camera.remoteMuted === true;
    next.offAirAudio = camera.offAirAudio === true;
    next.admitted ||= next.live;
  }
  const shared = entry(state.screenId);
  if (shared) {
    next.screenLive = shared.on === true;
    next.screenAdmitted ||= next.screenLive;
  }
  return next;
}

/** Whether the microphone is to be open at its source. */
export const microphoneOpen = ({ selfMuted, remoteMuted }) => !selfMuted && !remoteMuted;

/** Whether the guest gives no sound of their own will. */
export const isQuiet = ({ selfMuted, microphone }) => selfMuted || microphone === "silent";

const hears = (state) => microphoneOpen(state) && state.microphone === "on" && state.flows.audio === "sent";
const sees = (state) => state.camera === "on" && state.flows.video === "sent";

// Who sees and hears the guest, by what really leaves the page.
function reach(who, state) {
  const [seen, heard] = [sees(state), hears(state)];
  if (seen && heard) return `${who} can see and hear you.`;
  if (seen) return `${who} can see you. Nobody can hear you.`;
  return heard ? `${who} can hear you. Nobody can see you.` : "Nobody can see or hear you.";
}

/**
 * The state in words: `name` for the style sheet, `title` and `text` for the guest. A screen reader
 * says both whenever they change.
 */
export function describe(state) {
  if (state.phase === "connecting")
    return { name: "connecting", title: "Connecting", text: "One moment, please." };
  if (state.phase === "lost") {
    return {
      name: "lost",
      title: "Connection lost",
      text: "Nobody can see or hear you. Trying to get you back: please stay on this page.",
    };
  }
  if (!state.admitted && state.program) {
    return {
      name: "returning",
      title: "Coming back",
      text: "You are being put back where you were. Nobody can see or hear you for a moment.",
    };
  }
  if (!state.admitted) {
    return {
      name: "ringing",
      title: "Ringing",
      text: "The host can see that you are here and will bring you in.",
    };
  }
  if (!state.flows.show) {
    return {
      name: "silent",
      title: "Nothing comes from the studio",
      text: "Perhaps nobody can see or hear you now. Please stay on this page.",
    };
  }
  return state.live ? describeInShow(state) : describeGreenRoom(state);
}

function describeInShow(state) {
  if (!state.broadcastIsLive) {
    const text = `The show is not on air yet. ${reach("The host", state)}`;
    return { name: "standby", title: "In the show", text };
  }
  if (!sees(state) && !hears(state)) {
    const text = "You are in the show, but nobody can see or hear you.";
    return { name: "unseen", title: "Not seen, not heard", text };
  }
  const lack = !sees(state) ? ", no picture" : microphoneOpen(state) ? ", no sound" : ", muted";
  const without = sees(state) && hears(state) ? "" : lack;
  if (state.recordOnly) {
    const text = `The show is recorded, not broadcast. ${reach("The recording", state)}`;
    return { name: "recorded", title: `Recording${without}`, text };
  }
  return { name: "on-air", title: `On air${without}`, text: `You are live. ${reach("Everyone", state)}` };
}

function describeGreenRoom(state) {
  if (!state.broadcastIsLive) {
    const text = `The show is not on air yet. ${reach("The host", state)}`;
    return { name: "green-room", title: "Green room", text };
  }
  const show = state.recordOnly ? "The show is being recorded" : "The show is on air";
  if (!state.offAirAudio)
    return { name: "green-room", title: "Green room", text: `${show}. Nobody can hear you now.` };
  const heard = hears(state) ? "Only the studio can hear you." : "Nobody can hear you.";
  return { name: "off-air", title: "Green room, off-air talk", text: `${show}. ${heard}` };
}

/** What stands in the place of the show's picture, or over one that is not new; empty when it is `shown`. */
export function describePicture({ seated, admitted, program }, shown) {
  if (!seated) return shown ? "" : "The show appears here as soon as the host brings you in.";
  if (!program && !admitted)
    return "Until the host brings you in, there is no picture and no sound of the show here.";
  if (!program) return "There is no picture of the show at the moment.";
  if (program.feed === null) return "The show's picture is being restored.";
  return shown ? "" : "There is no picture of the show yet.";
}

/** What there is to say of the host's listening; empty when it is nothing particular. */
export const describeAlone = ({ alone }) => (alone ? "The host is listening to you alone." : "");

/** What there is to say of the guest's screen; empty when none is shared. */
export function describeScreen({ screenId, screenAdmitted, screenLive }) {
  if (screenId === null) return "";
  if (screenLive) return "Your screen is in the show.";
  return screenAdmitted ? "The host can see your screen." : "The host has been asked to take your screen in.";
}

/** What there is to say of the guest's microphone; empty when it is simply open. */
export function describeMicrophone({ remoteMuted, selfMuted, microphone, flows }) {
  if (remoteMuted) return "The host has switched your microphone off.";
  if (selfMuted) return "You have switched your microphone off.";
  if (microphone === "gone") return "Your microphone is switched off or has gone. Choose another.";
  if (microphone === "silent") return "No sound comes from your microphone. Switch it on, or choose another.";
  if (flows.audio === "refused") return "The show cannot take your browser's sound. Try another browser.";
  return flows.audio === "stuck" ? "Your sound does not get through at the moment." : "";
}

/** What there is to say of the guest's camera; empty when all is well with it. */
export function describeCamera({ camera, flows }) {
  if (camera === "gone") return "Your camera is switched off or has gone. Choose another.";
  if (flows.video === "refused") return "The show cannot take your browser's pictures. Try another browser.";
  return flows.video === "stuck" ? "Your picture does not get through at the moment." : "";
}
