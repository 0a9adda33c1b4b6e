// The joining of sound, in simulated time.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <map>
#include <numbers>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stage/sound/elastic_buffer.h"
#include "stage/sound/mixer.h"

namespace studio::sound {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr double tone = 500;  // a packet holds whole waves, so that losing one makes no step by itself
constexpr std::size_t packetFrames = 960;
constexpr double packetTime = 0.02;
// The right channel tells where in the guest's sound it was, in a period of two seconds.
constexpr std::size_t period = 96'000;
constexpr double rampHeight = 0.9;

Time at(double seconds) {
  return Time(std::chrono::duration_cast<Time::duration>(Seconds(seconds + 5)));
}

// A guest whose clock and network are not the studio's.
struct Line {
  double speed = 1;  // of the guest's clock
  double seconds = 30;
  double phase = 0.004;  // of the packets, in the studio's blocks
  // How much later than the first possible moment a packet comes; nothing: never. Packets keep their order.
  std::function<std::optional<double>(double sent)> late = [](double) { return 0.0; };
};

// What came out of the buffer, block for block.
class Heard {
 public:
  explicit Heard(const Line& line) {
    ElasticBuffer buffer;
    Block block{};
    std::vector<double> arrivals;
    double arrival = -1;
    double last = 0;
    for (std::uint64_t number = 0; static_cast<double>(number) < line.seconds * 100; ++number) {
      const double now = static_cast<double>(number) / 100;
      for (;;) {
        const double sent = line.phase + static_cast<double>(arrivals.size()) * packetTime / line.speed;
        if (sent > now) break;
        if (arrival < 0) {
          const std::optional<double> late = line.late(sent);
          if (!late) {
            arrivals.push_back(sent);
            continue;
          }
          arrival = std::max(sent + *late, arrivals.empty() ? 0 : arrivals.back());
        }
        if (arrival > now) break;
        buffer.push(packet(arrivals.size()), at(arrival));
        arrivals.push_back(arrival);
        arrival = -1;
      }
      Entry entry{.sounds = buffer.pull(block, at(now))};
      for (std::size_t frame = 0; frame < blockFrames; ++frame) {
        const double value = block[2 * frame];
        entry.step = std::max(entry.step, std::abs(value - last));
        last = value;
      }
      const double place = block[1] / rampHeight;
      if (place > 0.05 && place < 0.95) {  // not where it starts anew
        const double newest = (now - line.phase) * line.speed * static_cast<double>(framesASecond);
        const double back = std::fmod(newest - place * period + 10 * period, period);
        const auto of = static_cast<std::size_t>(std::max(0.0, newest - back) / packetFrames);
        entry.held = now - arrivals.at(of);
        entry.lag = back / static_cast<double>(framesASecond);
      }
      blocks_.push_back(entry);
    }
  }

  // Seconds without sound.
  double silence(double from, double to) const {
    double sum = 0;
    each(from, to, [&](const Entry& entry) { sum += entry.sounds ? 0 : 0.01; });
    return sum;
  }
  // The most between neighbouring samples, of what the tone itself makes.
  double step(double from, double to) const {
    const double own = 16'000.0 / 32'768 * 2 * std::numbers::pi * tone / static_cast<double>(framesASecond);
    double most = 0;
    each(from, to, [&](const Entry& entry) { most = std::max(most, entry.step); });
    return most / own;
  }
  // From a packet's arrival to the block that begins in it: the most, and on average.
  double held(double from, double to) const {
    double most = 0;
    each(from, to, [&](const Entry& entry) { most = std::max(most, entry.held); });
    return most;
  }
  double meanHeld(double from, double to) const { return mean(from, to, &Entry::held); }
  // From a sound's being made, on average.
  double lag(double from, double to) const { return mean(from, to, &Entry::lag); }

 private:
  struct Entry {
    bool sounds = false;
    double step = 0;
    double held = -1;
    double lag = -1;
  };

  static std::span<const std::int16_t> packet(std::size_t number) {
    static const std::vector<std::int16_t> sound = [] {
      std::vector<std::int16_t> made(2 * period);
      for (std::size_t frame = 0; frame < period; ++frame) {
        const double time = static_cast<double>(frame) / static_cast<double>(framesASecond);
        made[2 * frame] = static_cast<std::int16_t>(16'000 * std::sin(2 * std::numbers::pi * tone * time));
        made[2 * frame + 1] =
            static_cast<std::int16_t>(32'768 * rampHeight * static_cast<double>(frame) / period);
      }
      return made;
    }();
    return std::span(sound).subspan(2 * (number * packetFrames % period), 2 * packetFrames);
  }

  template <typename Action>
  void each(double from, double to, Action action) const {
    const auto first = static_cast<std::size_t>(from * 100);
    for (std::size_t index = first; index < std::min(blocks_.size(), static_cast<std::size_t>(to * 100));
         ++index) {
      action(blocks_[index]);
    }
  }
  double mean(double from, double to, double Entry::*value) const {
    double sum = 0;
    int count = 0;
    each(from, to, [&](const Entry& entry) {
      if (entry.*value < 0) return;
      sum += entry.*value;
      ++count;
    });
    return count > 0 ? sum / count : -1;
  }

  std::vector<Entry> blocks_;
};

std::function<std::optional<double>(double)> jitter(double most, double from = 0, double to = 1e9) {
  return [=, random = std::mt19937(7)](double sent) mutable -> std::optional<double> {
    return sent < from || sent > to ? 0 : std::uniform_real_distribution<double>(0, most)(random);
  };
}

constexpr double clean = 1.05;  // the tone's own step, and a little for the change of speed

TEST(ElasticBuffer, QuietLineStartsCleanAndIsShort) {
  for (const double phase : {0.0001, 0.0025, 0.005, 0.0099}) {
    const Heard heard({.seconds = 25, .phase = phase});
    EXPECT_LE(heard.silence(0, 25), 0.04) << phase;  // before the first packet is due
    EXPECT_LE(heard.step(0, 25), clean) << phase;
    EXPECT_LE(heard.meanHeld(0, 8), 0.037) << phase;
    EXPECT_LE(heard.lag(15, 25), 0.016) << phase;
    EXPECT_LE(heard.held(15, 25), 0.036) << phase;
    EXPECT_LE(heard.meanHeld(15, 25), 0.026) << phase;
  }
}

// Four minutes, in which the clocks part by 72 ms: seven blocks, and five times what is held in reserve.
TEST(ElasticBuffer, ClockThatDiffersNeitherClicksNorLags) {
  for (const double speed : {1.0003, 0.9997}) {
    const Heard heard({.speed = speed, .seconds = 240});
    EXPECT_EQ(heard.silence(1, 240), 0) << speed;
    EXPECT_LE(heard.step(0, 240), clean) << speed;
    EXPECT_LE(heard.held(15, 240), 0.040) << speed;
    EXPECT_LE(heard.lag(15, 240), 0.019) << speed;
    EXPECT_NEAR(heard.lag(30, 60), heard.lag(210, 240), 0.002) << speed;
  }
}

TEST(ElasticBuffer, JitterIsTakenUpAndForgotten) {
  const Heard shaky({.speed = 1.0003, .seconds = 90, .late = jitter(0.03, 0, 60)});
  EXPECT_LE(shaky.silence(0, 10), 0.1);
  EXPECT_EQ(shaky.silence(10, 90), 0);
  EXPECT_LE(shaky.step(0, 90), clean);
  EXPECT_LE(shaky.held(10, 60), 0.07);
  EXPECT_LE(shaky.lag(80, 90), 0.019);

  const Heard bad({.seconds = 110, .late = jitter(0.17, 0, 60)});
  EXPECT_LE(bad.silence(0, 10), 0.4);
  EXPECT_EQ(bad.silence(10, 110), 0);
  EXPECT_LE(bad.step(0, 110), clean);
  EXPECT_LE(bad.lag(10, 60), 0.2);
  EXPECT_LE(bad.lag(100, 110), 0.016);
}

TEST(ElasticBuffer, PauseIsSilentAndLeavesNothingBehind) {
  const Heard heard({.seconds = 60, .late = [shake = jitter(0.01)](double sent) mutable {
                       return sent > 20 && sent < 40 ? std::nullopt : shake(sent);
                     }});
  EXPECT_NEAR(heard.silence(20, 41), 20, 0.05);
  EXPECT_EQ(heard.silence(1, 20) + heard.silence(40.1, 60), 0);
  EXPECT_LE(heard.step(0, 60), clean);
  EXPECT_LE(heard.lag(40.1, 60), 0.03);
}

TEST(ElasticBuffer, StallIsNotDraggedAlong) {
  const Heard heard({.seconds = 40, .late = [](double sent) {
                       return std::optional(sent > 20 && sent < 20.3 ? 20.3 - sent : 0);
                     }});
  EXPECT_NEAR(heard.silence(20, 21), 0.29, 0.03);
  EXPECT_EQ(heard.silence(21, 40), 0);
  EXPECT_LE(heard.step(0, 40), clean);
  EXPECT_LE(heard.lag(20.5, 30), 0.045);
  EXPECT_LE(heard.lag(36, 40), 0.016);
}

TEST(ElasticBuffer, LossCostsWhatWasLost) {
  const Heard heard({.seconds = 50, .late = [random = std::mt19937(3)](double sent) mutable {
                       return sent > 10 && sent < 40 && random() % 10 == 0 ? std::nullopt
                                                                           : std::optional(0.0);
                     }});
  EXPECT_LE(heard.silence(10, 40), 2 * 3);  // a packet's sound, and until there is a block again
  EXPECT_EQ(heard.silence(41, 50), 0);
  EXPECT_LE(heard.step(0, 50), clean);
  EXPECT_LE(heard.lag(11, 40), 0.06);
  EXPECT_LE(heard.lag(41, 50), 0.026);
}

// A show with two guests live, two in the green room, two there with off-air audio on, and one outside.
struct Show {
  Conversation now;
  std::map<Voice, Standing> all = {{showItself, {.place = Place::live}},
                                   {host, {.place = Place::live}},
                                   {program, {.place = Place::live}},
                                   {1, {.place = Place::live}},
                                   {2, {.place = Place::live}},
                                   {3, {.place = Place::greenRoom}},
                                   {4, {.place = Place::greenRoom}},
                                   {5, {.place = Place::greenRoom, .offAirAudio = true}},
                                   {6, {.place = Place::greenRoom, .offAirAudio = true}},
                                   {7, {.offAirAudio = true}}};

  float loud(Voice listener, Voice source) const {
    return gain(now, listener, all.at(listener), source, all.at(source));
  }
  // The show, the host, the guests; what is lowered in brackets.
  std::string heardBy(Voice listener) const {
    std::string heard;
    for (const Voice source : {showItself, host, program, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
      const float loudness = loud(listener, source);
      if (loudness == 0) continue;
      const std::string name = source == showItself ? "S" : source == host ? "H" : std::to_string(source);
      heard += loudness == 1 ? name : "(" + name + ")";
    }
    return heard;
  }
};

TEST(Routing, WhoHearsWhom) {
  Show show;  // off air: one conversation
  EXPECT_EQ(show.heardBy(1), "SH23456");
  EXPECT_EQ(show.heardBy(3), "SH12456");
  EXPECT_EQ(show.heardBy(5), "SH12346");
  EXPECT_EQ(show.heardBy(host), "S123456");
  EXPECT_EQ(show.heardBy(program), "SH12");
  EXPECT_EQ(show.heardBy(7), "");

  show.now.onAir = true;
  EXPECT_EQ(show.heardBy(1), "SH2");
  EXPECT_EQ(show.heardBy(3), "SH12");
  EXPECT_EQ(show.heardBy(5), "SH126");
  EXPECT_EQ(show.heardBy(host), "S123456");
  EXPECT_EQ(show.heardBy(program), "SH12");
  EXPECT_EQ(show.heardBy(7), "");

  show.now.solo = 3;
  EXPECT_EQ(show.heardBy(host), "3");
  EXPECT_EQ(show.heardBy(program), "SH12");
  EXPECT_EQ(show.heardBy(1), "SH2");
}

TEST(Routing, TalkbackReachesWhoIsSpokenToAndNeverTheProgram) {
  Show show{.now = {.onAir = true, .talkback = {.on = true, .guest = 3}, .solo = {}}};
  EXPECT_EQ(show.heardBy(3), "(S)H(1)(2)");
  EXPECT_EQ(show.heardBy(4), "S12");
  EXPECT_EQ(show.heardBy(5), "S126");
  EXPECT_EQ(show.heardBy(1), "S2");
  EXPECT_EQ(show.heardBy(program), "S12");
  EXPECT_EQ(show.heardBy(host), "S123456");

  show.now.talkback.guest.reset();  // all who are backstage
  EXPECT_EQ(show.heardBy(4), "(S)H(1)(2)");
  EXPECT_EQ(show.heardBy(5), "(S)H(1)(2)(6)");
  EXPECT_EQ(show.heardBy(1), "S2");
  EXPECT_EQ(show.heardBy(7), "");

  show.now.talkback.guest = 1;  // live
  EXPECT_EQ(show.heardBy(1), "(S)H(2)");
  EXPECT_EQ(show.heardBy(2), "S1");
  EXPECT_EQ(show.heardBy(program), "S12");
  show.now.talkback.guest = 7;
  EXPECT_EQ(show.heardBy(7), "");

  show.now = {.onAir = false, .talkback = {.on = true, .guest = 3}, .solo = {}};
  EXPECT_EQ(show.heardBy(3), "(S)H(1)(2)(4)(5)(6)");
  EXPECT_EQ(show.heardBy(4), "S12356");
  EXPECT_EQ(show.heardBy(program), "S12");
}

TEST(Routing, MutesAndFaders) {
  Show show{.now = {.onAir = true, .talkback = {}, .solo = {}}};
  show.all[2].muted = true;
  for (const auto& [listener, standing] : show.all) EXPECT_EQ(show.loud(listener, 2), 0) << listener;
  EXPECT_EQ(show.heardBy(2), "SH1");
  show.now.solo = 2;
  EXPECT_EQ(show.heardBy(host), "");

  // Of the program alone, and so of those who hear it in the green room.
  show.now.solo.reset();
  show.all[1].fader = 0.5F;
  show.all[showItself].programMuted = true;
  EXPECT_EQ(show.loud(program, 1), 0.5F);
  EXPECT_EQ(show.heardBy(program), "H(1)");
  EXPECT_EQ(show.heardBy(3), "H(1)");
  EXPECT_EQ(show.heardBy(2), "SH1");
  EXPECT_EQ(show.heardBy(host), "S13456");
}

// Sources that each have a tone of their own, and what came of them.
class Desk : private Mixer::Listener {
 public:
  void add(Voice guest, Standing standing) {
    mixer.add(guest);
    mixer.setStanding(guest, standing);
  }
  void play(Voice source, double frequency, double loudness) { tones_[source] = {frequency, loudness}; }

  void run(double seconds) {
    for (int block = 0; block < static_cast<int>(seconds * 100); ++block, now_ += blockTime) {
      for (const auto& [source, sound] : tones_) {
        std::array<std::int16_t, 2 * blockFrames> samples{};
        for (std::size_t frame = 0; frame < blockFrames; ++frame) {
          const double time = static_cast<double>(made_ + frame) / static_cast<double>(framesASecond);
          const double value = std::sin(2 * std::numbers::pi * sound.frequency * time) * sound.loudness;
          samples[2 * frame] = samples[2 * frame + 1] = static_cast<std::int16_t>(value * 32'767);
        }
        mixer.push(source, samples, now_);
      }
      made_ += blockFrames;
      mixer.run(now_ + blockTime / 2);
    }
  }

  // How loud the source is in the last tenth of a second of what the listener heard.
  double heard(Voice listener, Voice source) const {
    const std::vector<double>& sound = mixes.at(listener);
    const std::size_t length = framesASecond / 10;
    double sine = 0;
    double cosine = 0;
    for (std::size_t index = 0; index < length; ++index) {
      const double angle = 2 * std::numbers::pi * tones_.at(source).frequency * static_cast<double>(index) /
                           static_cast<double>(framesASecond);
      sine += sound[sound.size() - length + index] * std::sin(angle);
      cosine += sound[sound.size() - length + index] * std::cos(angle);
    }
    return std::hypot(sine, cosine) * 2 / static_cast<double>(length);
  }
  double largestStep(Voice listener) const {
    const std::vector<double>& sound = mixes.at(listener);
    double most = 0;
    for (std::size_t index = 1; index < sound.size(); ++index) {
      most = std::max(most, std::abs(sound[index] - sound[index - 1]));
    }
    return most;
  }

  std::map<Voice, std::vector<double>> mixes;  // left channel
  std::map<Voice, Level> levels;
  int levelReports = 0;
  Mixer mixer{*this};

 private:
  void onMix(Voice listener, std::span<const std::int16_t> block) override {
    for (std::size_t frame = 0; frame < blockFrames; ++frame) {
      mixes[listener].push_back(block[2 * frame] / 32'768.0);
    }
  }
  void onSource(Voice, std::span<const std::int16_t>) override {}
  void onLevels(std::span<const SourceLevel> told) override {
    ++levelReports;
    levels.clear();
    for (const SourceLevel& each : told) levels[each.source] = each.level;
  }

  struct Tone {
    double frequency = 0;
    double loudness = 0;
  };
  std::map<Voice, Tone> tones_;
  Time now_ = at(0);
  std::size_t made_ = 0;
};

TEST(Mixer, EverybodyHearsAllButThemselves) {
  Desk desk;
  desk.mixer.setConversation({.onAir = true, .talkback = {}, .solo = {}});
  desk.add(1, {.place = Place::live});
  desk.add(2, {.place = Place::live, .fader = 0.5F});
  desk.play(showItself, 400, 0.1);
  desk.play(host, 700, 0.1);
  desk.play(1, 1'100, 0.1);
  desk.play(2, 1'500, 0.1);
  desk.run(1);
  const double nothing = 0.0005;
  for (const Voice listener : {host, 1U, 2U, program}) {
    for (const Voice source : {showItself, host, 1U, 2U}) {
      const double loud = listener == source ? 0 : listener == program && source == 2 ? 0.05 : 0.1;
      EXPECT_NEAR(desk.heard(listener, source), loud, 0.002) << listener << " hears " << source;
    }
  }
  EXPECT_LT(desk.heard(1, 1), nothing);
  EXPECT_FALSE(desk.mixes.contains(showItself));

  desk.mixer.setStanding(showItself, {.place = Place::live, .programMuted = true});
  desk.run(0.3);
  EXPECT_LT(desk.heard(program, showItself), nothing);
  EXPECT_NEAR(desk.heard(1, showItself), 0.1, 0.002);
}

TEST(Mixer, NothingThatChangesClicks) {
  Desk desk;
  desk.mixer.setConversation({.onAir = true, .talkback = {}, .solo = {}});
  desk.play(host, 300, 0.2);
  for (const Voice guest : {1U, 2U, 3U}) {
    desk.add(guest, {.place = guest == 3 ? Place::greenRoom : Place::live});
    desk.play(guest, 200 + 50 * guest, 0.2);
  }
  desk.run(0.5);
  for (int round = 0; round < 5; ++round) {
    desk.mixer.setStanding(1, {.place = Place::live, .fader = round % 2 == 0 ? 0.1F : 1.0F});
    desk.run(0.033);
    desk.mixer.setStanding(2, {.place = Place::live, .muted = round % 2 == 0});
    desk.run(0.033);
    desk.mixer.setConversation({.onAir = true, .talkback = {.on = round % 2 == 0, .guest = 3}, .solo = 1});
    desk.run(0.033);
  }
  desk.mixer.remove(1);
  desk.run(0.1);
  const std::size_t told = desk.mixes.at(1).size();
  desk.add(4, {.place = Place::live});  // takes the place, and none of the loudness
  desk.play(4, 400, 0.2);
  desk.run(0.5);
  EXPECT_EQ(desk.mixes.at(1).size(), told);
  EXPECT_FALSE(desk.levels.contains(1));
  EXPECT_NEAR(desk.heard(2, 4), 0.2, 0.004);
  // The tones' own steps, if all were at their steepest at once; 400 Hz came last, when 250 Hz was gone.
  const double own =
      0.2 * 2 * std::numbers::pi * (300 + 400 + 300 + 350) / static_cast<double>(framesASecond);
  for (const Voice listener : {host, program, 2U, 3U}) EXPECT_LE(desk.largestStep(listener), own) << listener;
}

TEST(Mixer, SumsAreLimitedAndLevelsTold) {
  Desk desk;
  desk.mixer.setConversation({.onAir = true, .talkback = {}, .solo = {}});
  for (const Voice guest : {1U, 2U, 3U}) {
    desk.add(guest, {.place = Place::live});
    desk.play(guest, 100 + 100 * guest, 0.9);
  }
  desk.run(0.5);
  double most = 0;
  for (const double value : desk.mixes.at(program)) most = std::max(most, std::abs(value));
  EXPECT_NEAR(most, 0.97, 0.001);
  EXPECT_GT(desk.heard(program, 1), 0.25);  // a third, and not the noise of clipping
  EXPECT_NEAR(desk.levels.at(program).peak, 20 * std::log10(0.97), 0.1);

  desk.play(1, 200, 0.5);
  for (const Voice guest : {2U, 3U}) desk.play(guest, 100 + 100 * guest, 0);
  desk.run(1);
  EXPECT_NEAR(desk.heard(program, 1), 0.5, 0.01);
  EXPECT_EQ(desk.levelReports, 15);
  EXPECT_NEAR(desk.levels.at(1).peak, -6.02, 0.1);
  EXPECT_NEAR(desk.levels.at(1).rms, -9.03, 0.1);
  EXPECT_NEAR(desk.levels.at(program).rms, -9.03, 0.1);
  EXPECT_EQ(desk.levels.at(2).peak, -120);
  EXPECT_EQ(desk.levels.at(host).rms, -120);
}

// For ThreadSanitizer: all that other threads may call, while the clock's runs.
TEST(Mixer, GuestsComeAndGoWhileItRuns) {
  Desk desk;
  std::atomic<bool> ends{false};
  std::thread pushes([&] {
    const std::array<std::int16_t, 2 * packetFrames> samples{};
    for (Voice guest = 0; !ends; ++guest) desk.mixer.push(guest % 20, samples);
  });
  std::thread hosts([&] {
    for (Voice guest = 1; guest <= 500; ++guest) {
      desk.add(guest, {.place = Place::live});
      desk.mixer.setConversation({.onAir = guest % 2 == 0, .talkback = {}, .solo = guest});
      if (guest > 15) desk.mixer.remove(guest - 15);
    }
    ends = true;
  });
  while (!ends) desk.mixer.run(std::chrono::steady_clock::now());
  pushes.join();
  hosts.join();
  desk.run(0.2);
  EXPECT_EQ(desk.levels.size(), 3 + 15U);
}

}  // namespace
}  // namespace studio::sound
