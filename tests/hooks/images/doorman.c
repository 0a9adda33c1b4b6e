// A Mach-O library that imports functions in every way that matters to rebinding.

extern int open_door(int guest);
extern int ring_bell(int guest);
extern int bell_count;
extern int one_letter(int guest) __asm__("Q");
extern int no_underscore(int guest) __asm__("qz");

int callOpen(int guest) {
  return open_door(guest);
}
int callRing(int guest) {
  return ring_bell(guest);
}
int callOneLetter(int guest) {
  return one_letter(guest);
}
int callNoUnderscore(int guest) {
  return no_underscore(guest);
}

// Through the non-lazy pointer.
void* bellAddress(void) {
  return (void*)&ring_bell;
}
int bellCount(void) {
  return bell_count;
}

// Pointers in the image's own data, which belong to no section of symbol pointers.
static int stayOutside(int guest) {
  return -guest;
}
int (*table[])(int) = {open_door, ring_bell, stayOutside};
int (*const constantTable[])(int) = {ring_bell, stayOutside};
