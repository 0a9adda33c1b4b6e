// Keeps the screen on: a phone that goes to sleep takes its guest out of the picture.

let lock = null;
let wanted = false;

/** Whether the screen is to stay on, as long as the page is in sight. */
export function keepAwake(on) {
  if (wanted === on) return;
  wanted = on;
  if (on) {
    take();
  } else {
    lock?.release();
    lock = null;
  }
}

async function take() {
  if (!wanted || document.hidden || lock) return;
  try {
    const taken = await navigator.wakeLock.request("screen");
    taken.onrelease = () => lock === taken && (lock = null);
    if (wanted) lock = taken;
    else taken.release();
  } catch {
    // The browser cannot, or saves power: then the guest touches the screen now and then.
  }
}

// The system takes the lock away while the page is out of sight.
document.addEventListener("visibilitychange", take);
