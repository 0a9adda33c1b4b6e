// What a framework derives its run-loop sources from.
#pragma once

#include <CoreFoundation/cf_runtime.h>
#include <glib.h>

struct __CFRunLoopSource : platform::CFObject {
  CFTypeID typeId() const override { return platform::typeIdOf<__CFRunLoopSource>(); }

  // Called once, on the thread that adds the source to a run loop: from now on what the source has to say
  // is dispatched from that run loop's context.
  virtual void schedule(GMainContext* context) = 0;
};
