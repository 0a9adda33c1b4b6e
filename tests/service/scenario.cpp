// The scripted SDK as a library that takes the SDK's place in a real service process. The environment
// variable SDK_SCENARIO says what happens there.

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
  const std::string scenario = name ? name : "";
  ScriptedSdk& sdk = ScriptedSdk::get();
  if (scenario == "connect hangs") {
    sdk.hold("otc_session_connect");
  } else if (scenario == "error") {
    sdk.onCall = [](const std::string& call) {
      if (call.starts_with("otc_session_connect")) logSoon("[ERROR] broken");
    };
  } else if (scenario == "error with a guest") {
    sdk.onCall = [&sdk](const std::string& call) {
      if (call.starts_with("otc_session_connect")) sdk.receiveStream({"cam", "Guest - Ann"});
      if (call == "otc_session_send_signal session start cam") logSoon("[ERROR] broken");
    };
  }
  return true;
}();

}  // namespace
