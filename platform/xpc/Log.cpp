#include "Log.h"

#include <cstdio>

void platform::xpc::logLine(const std::string& text) {
  fprintf(stderr, "%s\n", text.c_str());
}
