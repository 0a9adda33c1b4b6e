#include <gst/gst.h>

#include <cstdio>
#include <exception>

#include "app/options.h"
#include "app/studio.h"

int main(int argc, char** argv) {
  try {
    const studio::Parsed parsed = studio::parseOptions(argc, argv);
    if (parsed.end) return *parsed.end;
    gst_init(nullptr, nullptr);
    return studio::Studio(parsed.options).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zarvo-studio: %s\n", error.what());
    return 1;
  }
}
