#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "browser.h"
#include "program.h"

// The address of the real session server, also while a test has the engine look elsewhere. Throws where there
// is none.
inline const std::string& server() {
  static const std::string address = [] {
    const char* given = std::getenv("ZARVO_SESSION_SERVER");
    if (given == nullptr) {
      throw std::runtime_error("ZARVO_SESSION_SERVER is not set: run this test by tests/support/with-janus");
    }
    return std::string(given);
  }();
  return address;
}

// A program and a browser, and a room on the server for each test.
class RoomTest : public testing::Test {
 protected:
  using json = nlohmann::json;

  static void SetUpTestSuite() {
    server();  // without it, no test of the suite runs
    browser = std::make_unique<Browser>();
  }
  static void TearDownTestSuite() { browser.reset(); }

  void SetUp() override {
    setenv("ZARVO_SESSION_SERVER", server().c_str(), 1);
    browser->call("makeRoom", {{"server", server()}, {"room", room}, {"token", token}, {"pin", pin}});
  }
  void TearDown() override { program.disconnect(); }

  void join(const std::string& name) {
    browser->call("joinRoom",
                  {{"server", server()}, {"room", room}, {"token", token}, {"pin", pin}, {"as", name}});
  }

  static constexpr const char* token = "the-token";
  static inline int rooms = 0;
  static inline std::unique_ptr<Browser> browser;
  const std::string room = "room " + std::to_string(++rooms);
  std::string pin;  // empty: the room has none
  Program program;
};
