// What the page keeps for later, as far as the browser lets it keep anything.

import { parse } from "./signals.js";

const CHOICES = "guest";
const SEAT = "seat";

// A function each: a browser that keeps nothing throws when it is asked for them.
const always = () => localStorage;
const inThisTab = () => sessionStorage;

/** The guest's choices at the last visit. */
export const readChoices = () => read(always, CHOICES);
export const keepChoices = (choices) => write(always, CHOICES, choices);

/**
 * Keeps the seat's key. A reload takes the tab back to the seat by itself; whoever has closed the tab comes
 * back to it by ringing under the same name.
 */
export function keepSeat(seat) {
  write(inThisTab, SEAT, seat);
  write(always, SEAT, seat);
}

/** The key of the seat that this tab had with the invitation; null if there was none. */
export const seatOfTab = (invite) => keyOf(read(inThisTab, SEAT), { invite });
/** The key of the seat that the guest of that name had. */
export const seatOfGuest = (invite, name) => keyOf(read(always, SEAT), { invite, name });

/** The tab does not go back to its seat any more. */
export function leaveSeat() {
  remove(inThisTab, SEAT);
}

/** Nobody goes back to the seat of this key: it is gone. */
export function forgetSeat(key) {
  for (const storage of [inThisTab, always]) if (read(storage, SEAT).key === key) remove(storage, SEAT);
}

function keyOf(seat, wanted) {
  const fits = Object.entries(wanted).every(([field, value]) => seat[field] === value);
  return fits && typeof seat.key === "string" ? seat.key : null;
}

function read(storage, key) {
  try {
    return parse(storage().getItem(key));
  } catch {
    return {};
  }
}

function write(storage, key, value) {
  try {
    storage().setItem(key, JSON.stringify(value));
  } catch {
    // then it is asked for anew next time
  }
}

function remove(storage, key) {
  try {
    storage().removeItem(key);
  } catch {
    // nothing was kept
  }
}
