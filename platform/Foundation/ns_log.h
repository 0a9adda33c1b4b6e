// The system log: what journald takes from a service's standard error.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

// Writes one line, with the time, the program and the process before it, in a single write to standard
// error. The format is printf's, with %@ for a CoreFoundation string; %n is not known. Line breaks and other
// control characters in the text are written as escapes, so that a text is never taken for two records, and
// a text is cut at 32 KiB. May be called on any thread.
extern "C" void NSLog(CFStringRef format, ...);
