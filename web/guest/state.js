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
  offAirAudio: false,
  broadcastIsLive: false,
  recordOnly: false,
  viewers: null,
});

const notAdmitted = { admitted: false, screenAdmitted: false, live: false, screenLive: false };

export const connecting = (state) => ({ ...state, phase: "connecting" });
/** In the room, also anew: what was known of an earlier place in it no longer holds. */
export const entered = ({ selfMuted }, streamId) => ({ ...initial, selfMuted, phase: "in", streamId });
export const lost = (state) => ({ ...state, phase: "lost" });
export const mended = (state) => ({ ...state, phase: "in" });
export const left = ({ selfMuted }) => ({ ...initial, selfMuted });
/** The screen is published under the id, or, with null, no longer. */
export const screen = (state, screenId) => ({ ...state, screenId, screenAdmitted: false, screenLive: false });
/** The studio's own stream has ended: whoever takes its place has to bring the guests in anew. */
export const showEnded = (state) => ({ ...state, ...notAdmitted });

/** The state after a signal; the same object when the signal does not concern it. */
export function signalled(state, type, data) {
  switch (type) {
    case "start":
      if (data === state.streamId) return { ...state, admitted: true };
      if (data === state.screenId) return { ...state, screenAdmitted: true };
      return state;
    case "stop":
      // The camera's own "stop" is `takesOut`.
      return data === state.screenId ? screen(state, state.screenId) : state;
    case "audio_setting":
      return heardOfAudio(state, parse(data));
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

function heardOfAudio(state, { subs, broadcastIsLive, recordOnly }) {
  if (!Array.isArray(subs)) return state;
  const next = { ...state, broadcastIsLive: broadcastIsLive === true, recordOnly: recordOnly === true };
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
      text: "Trying to get you back. Please stay on this page.",
    };
  }
  if (!state.admitted) {
    return {
      name: "ringing",
      title: "Ringing",
      text: "The host can see that you are here and will bring you in.",
    };
  }
  if (state.live) {
    if (state.recordOnly) {
      return {
        name: "recorded",
        title: "Recording",
        text: "You are in the show. It is recorded, not broadcast.",
      };
    }
    if (state.broadcastIsLive) {
      return { name: "on-air", title: "On air", text: "You are live: everyone can see and hear you." };
    }
    return {
      name: "standby",
      title: "In the show",
      text: "The show is not on air yet. The host can see and hear you.",
    };
  }
  if (!state.broadcastIsLive) {
    return {
      name: "green-room",
      title: "Green room",
      text: "The host can see and hear you. The show is not on air yet.",
    };
  }
  const show = state.recordOnly ? "The show is being recorded" : "The show is on air";
  if (state.offAirAudio) {
    return {
      name: "off-air",
      title: "Green room, off-air talk",
      text: `${show}. Only the studio can hear you.`,
    };
  }
  return { name: "green-room", title: "Green room", text: `${show}. Nobody can hear you now.` };
}

/** What there is to say of the guest's screen; empty when none is shared. */
export function describeScreen({ screenId, screenAdmitted, screenLive }) {
  if (screenId === null) return "";
  if (screenLive) return "Your screen is in the show.";
  return screenAdmitted ? "The host can see your screen." : "The host has been asked to take your screen in.";
}

/** What there is to say of the guest's microphone; empty when it is simply open. */
export function describeMicrophone({ remoteMuted, selfMuted }) {
  if (remoteMuted) return "The host has switched your microphone off.";
  return selfMuted ? "You have switched your microphone off." : "";
}
