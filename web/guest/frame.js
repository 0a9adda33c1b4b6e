// Drawing once a picture of the screen, however often there is something new.

// Nobody sees a page in the background, but its title; there the browser asks for no pictures.
const UNSEEN_TIME = 250;

/** Returns a function that has `draw` called once before the next picture, however often it is called. */
export function oncePerFrame(draw) {
  let frame = 0;
  let timer = 0;
  const run = () => {
    cancelAnimationFrame(frame);
    clearTimeout(timer);
    frame = 0;
    draw();
  };
  return () => {
    if (frame) return;
    frame = requestAnimationFrame(run);
    timer = setTimeout(run, UNSEEN_TIME);
  };
}
