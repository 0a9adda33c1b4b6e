// Messages over the link, one by one.

#include <array>
#include <cstring>
#include <string>

#include "measurements.h"
#include "plain_socket.h"

namespace bench {

namespace {

constexpr int kMessages = 2000;

}  // namespace

void measureMessages(Service& service, Report& report, const std::string& where) {
  Durations replies;
  Durations echoes;
  Durations sounds;
  Durations datagrams;
  Durations commands;
  Durations stamps;
  for (int i = 0; i < kMessages; ++i) {
    replies.add(service.studio().roundTrip());

    Message echo{.order = Order::echo};
    const int64_t begin = now();
    service.order(echo);
    receivePlain(service.controlSocket(), &echo, sizeof echo);
    echoes.add(now() - begin);

    service.order({.order = Order::sound});
    sounds.add(*service.studio().waitForArrival());

    service.order({.order = Order::soundFloor});
    std::array<char, kSoundBytes> sound;
    receivePlain(service.floorSocket(), sound.data(), sound.size());
    int64_t sent = 0;
    std::memcpy(&sent, sound.data(), sizeof sent);
    datagrams.add(now() - sent);

    service.studio().client.viewerCount(std::to_string(now()));
    commands.add(service.answer().nanoseconds);

    stamps.add(service.ask({.order = Order::stamp, .sent = now()}).nanoseconds);
  }
  report.add("host-link message and reply, " + where, replies, echoes, 1.4);
  report.add("sound message of 3,840 bytes, one way, " + where, sounds, datagrams, 1.4);
  report.add("studio command to the session's call, " + where, commands, stamps);
}

}  // namespace bench
