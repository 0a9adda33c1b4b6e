// The scripted SDK as a library that takes the SDK's place in a real service process. The environment
// variable SDK_SCENARIO says what happens there.

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "scripted_sdk.h"

namespace {

void logSoon(const char* line) {
  std::thread([line] { ScriptedSdk::get().logger(line); }).detach();
}

[[maybe_unused]] const bool scenarioIsSet = [] {
  const char* name = std::getenv("SDK_SCENARIO");
  ScriptedSdk::get().onCall = [scenario = std::string(name ? name : "")](const std::string& call) {
    if (call.starts_with("otc_session_connect")) {
      while (scenario == "connect hangs") pause();
      if (scenario == "error") logSoon("[ERROR] broken");
      if (scenario == "error with a guest") ScriptedSdk::get().receiveStream({"cam", "Guest - Ann"});
    }
    if (scenario == "error with a guest" && call == "otc_session_send_signal session start cam") {
      logSoon("[ERROR] broken");
    }
  };
  return true;
}();

}  // namespace
