#include "studio/stage.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <list>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

#include "stage/janus_server.h"
#include "stage/ledger.h"
#include "stage/lobby.h"
#include "stage/lobby_socket.h"
#include "stage/loop.h"
#include "stage/private_directory.h"
#include "stage/program_feed.h"
#include "stage/rooms.h"
#include "stage/seat.h"
#include "stage/sound/clock.h"
#include "stage/sound/mixer.h"
#include "stage/spares.h"
#include "stage/talk.h"
#include "stage/talk_limit.h"
#include "stage/web_server.h"

namespace studio {

using nlohmann::json;

namespace {

using std::chrono::milliseconds;

// How long a guest in the green room stays heard after the host has talked to them, so that they can answer.
constexpr std::chrono::seconds answerTime(10);
// Before a service that never got as far as joining is replaced once more.
constexpr milliseconds shortestPause(250);
constexpr milliseconds longestPause(10'000);
constexpr std::chrono::seconds talkPause(1);
constexpr float mostGain = 4;
constexpr std::size_t mostPages = 256;  // at the lobby at once
constexpr std::ptrdiff_t mostPagesAnAddress = 64;

// Where sockets of services are made, as the XPC client looks for them: the studio's own folder where the
// system has none.
std::filesystem::path runtimeDirectory(const PrivateDirectory& own) {
  if (!std::getenv("XDG_RUNTIME_DIR")) setenv("XDG_RUNTIME_DIR", own.path().c_str(), 1);
  return std::getenv("XDG_RUNTIME_DIR");
}

}  // namespace

std::string_view nameOf(Stage::State state) {
  return nameOf(static_cast<SeatState>(state));
}

class Stage::Impl : public Seat::Listener,
                    public JanusServer::Listener,
                    public LobbySocket::Listener,
                    public WebServer::Listener,
                    public sound::Mixer::Listener {
 public:
  Impl(Settings settings, Stage::Listener& listener);
  ~Impl() override;

  // ---- Commands, as they stand in the header ----
  void admit(Number guest);
  void setLive(Number guest, bool live);
  void mute(Number guest, bool muted);
  void remove(Number guest);
  void offAirAudio(Number guest, bool on);
  void fade(Number guest, float gain);
  void muteInProgram(Number guest, bool muted);
  void talk(sound::Talkback talkback);
  void hearAlone(std::optional<Number> guest);
  void setShow(const ShowState& show);
  const ShowState& show() const { return show_; }
  void offAirAudio(bool on);
  void comment(const std::string& name, const std::string& text, const std::string& uuid);
  void chat(const std::string& name, const std::string& text, const std::string& uuid);
  void favourite(const std::string& uuid, const std::string& state);
  std::string invite(const std::string& name);
  std::string linkFor(const std::string& key) const;
  std::string link() const { return linkFor(lobby_.invitation()); }
  std::vector<Guest> guests() const;

  bool showPicture(IOSurfaceRef picture) { return program_.show(picture); }
  bool showWanted() const { return anybodyIn_; }
  void push(sound::Voice source, std::span<const std::int16_t> samples) { mixer_.push(source, samples); }

 private:
  struct Entry {
    std::unique_ptr<Seat> seat;
    Guest guest;
    LobbySocket* page = nullptr;
    bool offAirWanted = false;
    Timer offAirLater;  // until a guest who was talked to is not heard any more
    milliseconds pause = shortestPause;
    Timer again;
    bool lost = false;  // the service's loss has been told
    bool shutOut = false;
  };

  // Seat::Listener
  void onSeatChanged(Seat& seat) override;
  void onSeatRings(Seat& seat) override;
  void onSeatIn(Seat& seat) override;
  void onSeatChat(Seat& seat, const std::string& text, const std::string& uuid) override;
  void onSeatFavourite(Seat& seat, const std::string& uuid, const std::string& state) override;
  void onSeatLog(Seat& seat, std::string_view line) override { listener_.onLog(seat.number(), line); }
  void onSeatServiceLost(Seat& seat, const std::string& reason, bool ran) override;
  void onSeatFrame(Number number, Seat::Kind kind, Frame frame) override;
  void onSeatSound(Number number, std::span<const std::int16_t> samples) override;

  // JanusServer::Listener
  void onServing(Rooms& rooms) override;
  void onJanusEnded(const std::string& reason) override;
  void onJanusFailed(const std::string& reason) override { listener_.onFailed(reason); }

  // WebServer::Listener
  std::optional<std::uint32_t> seatOf(std::string_view key) override { return lobby_.seatOf(key); }
  void onPage(SoupWebsocketConnection* connection, const std::string& address) override;

  // LobbySocket::Listener
  void onAsk(LobbySocket& page, const std::string& invitation, const std::string& name) override;
  void onReturn(LobbySocket& page, const std::string& key) override;
  void onPageState(LobbySocket& page, const PageState& state) override;
  void onLeave(LobbySocket& page) override;
  void onClosed(LobbySocket& page) override;

  // sound::Mixer::Listener, on the clock's thread
  void onMix(sound::Voice listener, std::span<const std::int16_t> block) override;
  void onSource(sound::Voice source, std::span<const std::int16_t> block) override;
  void onLevels(std::span<const sound::SourceLevel> levels) override;

  bool passOn(const Seat& seat);
  void tellOfTalk();
  Entry* find(Number guest);
  void answer(LobbySocket& page, const std::variant<SeatRecord, Lobby::Refusal>& outcome);
  Entry& seatFor(const SeatRecord& record);
  void openRoom(Number guest);
  void serve(Number guest);
  void tellSeat(const Entry& entry) const;
  void tellProgram(const Entry& entry) const;
  void tellProgram() const;
  void hearOffAir(Entry& entry);
  void updateSound(Entry& entry);
  void updateConversation();
  void shutOut(Entry& entry);
  void end(Number guest);
  void writeLedger();

  Settings settings_;
  Stage::Listener& listener_;
  Loop loop_;
  PrivateDirectory directory_;
  Ledger ledger_;
  Lobby lobby_;
  Talk talk_;
  TalkLimit talkLimit_;
  std::size_t linesLeftOut_ = 0;
  std::size_t linesTold_ = 0;
  Timer talkTimer_;
  ShowState show_;
  bool offAirAudio_ = false;
  sound::Conversation conversation_;
  sound::Standing showStanding_{.place = Place::live};
  std::atomic<bool> anybodyIn_{false};
  bool ready_ = false;

  std::map<Number, Entry> seats_;
  std::mutex playersMutex_;  // guards the map for the clock's thread
  std::map<Number, Seat*> players_;
  std::list<std::unique_ptr<LobbySocket>> pages_;

  sound::Mixer mixer_;
  JanusServer janus_;
  Rooms* rooms_ = nullptr;  // while the session server serves
  Spares spares_;
  ProgramFeed program_;
  WebServer web_;
  Timer ledgerTimer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::unique_ptr<sound::Clock> clock_;  // ended first
};

Stage::Impl::Impl(Settings settings, Stage::Listener& listener)
    : settings_(std::move(settings)),
      listener_(listener),
      ledger_(settings_.ledger),
      lobby_({settings_.seats, settings_.offers, settings_.requestsAMinute}, ledger_.read()),
      mixer_(*this),
      janus_({settings_.janus, settings_.janusPort}, *this),
      spares_({settings_.service,
               runtimeDirectory(directory_),
               {{"ZARVO_SESSION_SERVER", janus_.url()}},
               settings_.serviceOutput},
              [this](const std::string& reason) {
                if (ready_) {
                  listener_.onLog(0, reason);
                } else {
                  listener_.onFailed(reason);
                }
              }),
      program_(spares_, {[this] { tellProgram(); },
                         [this](const std::string& reason) { listener_.onServiceLost(0, reason); },
                         [this](std::string_view line) { listener_.onLog(0, line); }}),
      web_({settings_.address, settings_.port, settings_.page, janus_.url(), settings_.certificate,
            settings_.key},
           *this),
      clock_(std::make_unique<sound::Clock>([this](sound::Time due) { mixer_.run(due); })) {
  for (const SeatRecord& record : lobby_.content().seats)
    seatFor(record).seat->restore(record.place, record.muted);
  writeLedger();
  janus_.start();
}

Stage::Impl::~Impl() {
  clock_.reset();
  ledgerTimer_.stop();
  ledger_.write(lobby_.content());
  program_.close();
  seats_.clear();
  pages_.clear();
}

// ---- The session server ----------------------------------------------------------

void Stage::Impl::onServing(Rooms& rooms) {
  rooms_ = &rooms;
  program_.open(rooms);
  for (auto& [number, entry] : seats_) {
    if (entry.page) openRoom(number);
  }
  if (std::exchange(ready_, true)) {
    listener_.onSessionServerBack();
  } else {
    listener_.onReady(link());
  }
}

void Stage::Impl::onJanusEnded(const std::string& reason) {
  rooms_ = nullptr;
  program_.close();
  for (auto& [number, entry] : seats_) entry.seat->leaveRoom();
  listener_.onSessionServerLost(reason);
}

// ---- The lobby -------------------------------------------------------------------

void Stage::Impl::onPage(SoupWebsocketConnection* connection, const std::string& address) {
  auto page = std::make_unique<LobbySocket>(connection, address, *this);
  const auto ofAddress = std::count_if(pages_.begin(), pages_.end(),
                                       [&](const auto& each) { return each->address() == address; });
  // One that is too many is hung up on.
  if (pages_.size() < mostPages && ofAddress < mostPagesAnAddress) pages_.push_back(std::move(page));
}

void Stage::Impl::onClosed(LobbySocket& page) {
  if (page.seat) {
    Entry* entry = find(*page.seat);
    if (entry && entry->page == &page) entry->page = nullptr;
  }
  // Not at once: the page is still calling.
  loop_.post(
      [this, gone = &page] { pages_.remove_if([gone](const auto& each) { return each.get() == gone; }); });
}

void Stage::Impl::onAsk(LobbySocket& page, const std::string& invitation, const std::string& name) {
  answer(page, lobby_.ask(page.address(), invitation, name, std::chrono::steady_clock::now()));
}

void Stage::Impl::onReturn(LobbySocket& page, const std::string& key) {
  answer(page, lobby_.comeBack(page.address(), key, std::chrono::steady_clock::now()));
}

void Stage::Impl::answer(LobbySocket& page, const std::variant<SeatRecord, Lobby::Refusal>& outcome) {
  if (const auto* refusal = std::get_if<Lobby::Refusal>(&outcome)) {
    page.send({{"refused", {{"reason", nameOf(*refusal)}}}});
    return;
  }
  const SeatRecord& record = std::get<SeatRecord>(outcome);
  Entry& entry = seatFor(record);
  if (page.seat && *page.seat != record.number) {
    if (Entry* before = find(*page.seat)) before->page = nullptr;
  }
  if (entry.page && entry.page != &page) {
    entry.page->send({{"refused", {{"reason", "elsewhere"}}}});
    entry.page->seat.reset();
    entry.page->close();
  }
  entry.page = &page;
  page.seat = record.number;
  if (entry.seat->room().id.empty()) {
    openRoom(record.number);
  } else {
    tellSeat(entry);
    tellProgram(entry);
  }
  writeLedger();
}

Stage::Impl::Entry& Stage::Impl::seatFor(const SeatRecord& record) {
  const auto [found, isNew] = seats_.try_emplace(record.number);
  Entry& entry = found->second;
  if (!isNew) return entry;
  entry.guest.number = record.number;
  entry.guest.name = record.name;
  entry.guest.since = std::chrono::steady_clock::now();
  entry.seat = std::make_unique<Seat>(
      Seat::Settings{record.number, record.name, settings_.offerLimit, settings_.awayLimit}, *this);
  entry.seat->setShow(show_);
  mixer_.add(record.number);
  const std::lock_guard lock(playersMutex_);
  players_[record.number] = entry.seat.get();
  return entry;
}

// A room of the guest's own, and a service that joins it while the page does.
void Stage::Impl::openRoom(Number guest) {
  if (!rooms_) return;  // as soon as the session server is back
  const Room room = Room::unguessable(2);
  rooms_->make(room, [this, guest, room](const std::string& fault) {
    Entry* entry = find(guest);
    if (!entry) return;
    if (!fault.empty()) {
      listener_.onLog(guest, "the guest's room cannot be made: " + fault);
      return;
    }
    entry->seat->setRoom(room);
    tellSeat(*entry);
    tellProgram(*entry);
    serve(guest);
  });
}

void Stage::Impl::serve(Number guest) {
  spares_.take([this, guest](std::unique_ptr<GuestService> service) {
    Entry* entry = find(guest);
    if (!entry || !rooms_ || entry->seat->room().id.empty()) return;  // not needed any more
    entry->seat->serve(std::move(service));
  });
}

void Stage::Impl::tellSeat(const Entry& entry) const {
  if (!entry.page) return;
  const Room& room = entry.seat->room();
  entry.page->send({{"seat",
                     {{"key", lobby_.keyOf(entry.guest.number)},
                      {"number", entry.guest.number},
                      {"name", entry.guest.name},
                      {"room", room.id},
                      {"token", room.tokens[1]},
                      {"server", "janus"},
                      {"iceServers", json::array()}}}});
}

// The pin goes to whoever has been let in, and to nobody else.
void Stage::Impl::tellProgram(const Entry& entry) const {
  if (!entry.page) return;
  const auto& access = program_.access();
  if (!access || entry.seat->place() == Place::outside) {
    entry.page->send({{"program", nullptr}});
    return;
  }
  entry.page->send({{"program",
                     {{"room", access->room},
                      {"pin", access->pin},
                      {"feed", access->feed ? json(*access->feed) : json()}}}});
}

void Stage::Impl::tellProgram() const {
  for (const auto& [number, entry] : seats_) {
    if (entry.seat->place() != Place::outside) tellProgram(entry);
  }
}

void Stage::Impl::onPageState(LobbySocket& page, const PageState& state) {
  Entry* entry = page.seat ? find(*page.seat) : nullptr;
  if (!entry) return;
  if (state.hidden) entry->guest.hidden = *state.hidden;
  if (state.camera) entry->guest.camera = *state.camera;
  if (state.microphone) entry->guest.microphone = *state.microphone;
  listener_.onChanged(entry->guest);
}

void Stage::Impl::onLeave(LobbySocket& page) {
  if (page.seat) remove(*page.seat);
}

// ---- The seats -------------------------------------------------------------------

Stage::Impl::Entry* Stage::Impl::find(Number guest) {
  const auto found = seats_.find(guest);
  return found == seats_.end() ? nullptr : &found->second;
}

void Stage::Impl::onSeatChanged(Seat& seat) {
  Entry& entry = seats_.at(seat.number());
  if (seat.state() == SeatState::gone) {
    end(seat.number());
    return;
  }
  const auto state = static_cast<State>(seat.state());
  if (state != entry.guest.state) entry.guest.since = std::chrono::steady_clock::now();
  if (state != State::offered) lobby_.rang(seat.number());
  entry.guest.state = state;
  entry.guest.live = seat.place() == Place::live;
  entry.guest.muted = seat.muted();
  entry.guest.screen = seat.hasScreen();
  lobby_.keep(seat.number(), seat.place(), seat.muted());
  lobby_.setPresent(seat.number(), seat.present());
  writeLedger();
  hearOffAir(entry);
  updateSound(entry);
  anybodyIn_ = std::any_of(seats_.begin(), seats_.end(),
                           [](const auto& each) { return each.second.seat->place() != Place::outside; });
  listener_.onChanged(entry.guest);
}

void Stage::Impl::onSeatRings(Seat& seat) {
  Entry& entry = seats_.at(seat.number());
  listener_.onRing(entry.guest);
}

void Stage::Impl::onSeatIn(Seat& seat) {
  Entry& entry = seats_.at(seat.number());
  entry.pause = shortestPause;
  if (std::exchange(entry.lost, false)) listener_.onServiceBack(seat.number());
  tellProgram(entry);
  for (const Line& line : talk_.lines()) seat.chat(line.name, line.text, line.uuid);
}

void Stage::Impl::onSeatServiceLost(Seat& seat, const std::string& reason, bool ran) {
  Entry& entry = seats_.at(seat.number());
  entry.lost = true;
  listener_.onServiceLost(seat.number(), reason);
  if (!rooms_) return;  // a new room comes with the session server
  const auto replace = [this, guest = seat.number()] {
    const Entry* waiting = find(guest);
    if (!waiting || !rooms_) return;
    rooms_->evictService(waiting->seat->room(), [this, guest](const std::string&) { serve(guest); });
  };
  if (ran) {
    entry.pause = shortestPause;
    replace();
  } else {
    entry.again.once(entry.pause, replace);
    entry.pause = std::min(2 * entry.pause, longestPause);
  }
}

// At once, though the service takes a moment to end: nothing that the guest was given is worth anything more.
void Stage::Impl::shutOut(Entry& entry) {
  if (std::exchange(entry.shutOut, true)) return;
  const Number guest = entry.guest.number;
  if (LobbySocket* const page = std::exchange(entry.page, nullptr)) {
    page->send({{"removed", json::object()}});
    page->seat.reset();
  }
  lobby_.revoke(guest);
  web_.closeSeat(guest);
  if (entry.seat->place() != Place::outside) program_.changePin();
  writeLedger();
}

void Stage::Impl::end(Number guest) {
  // The node is kept until the seat's call has returned.
  const auto node = std::make_shared<decltype(seats_)::node_type>(seats_.extract(guest));
  Entry& entry = node->mapped();
  const std::string name = entry.guest.name;
  {
    const std::lock_guard lock(playersMutex_);
    players_.erase(guest);
  }
  mixer_.remove(guest);
  if (conversation_.solo == guest) hearAlone({});
  if (conversation_.talkback.on && conversation_.talkback.guest == guest) talk({});
  shutOut(entry);
  lobby_.release(guest);
  if (rooms_ && !entry.seat->room().id.empty()) rooms_->end(entry.seat->room());
  loop_.post([node] {});
  listener_.onGone(guest, name);
}

// Each change is kept soon, and many at once only once.
void Stage::Impl::writeLedger() {
  if (ledgerTimer_.runs()) return;
  ledgerTimer_.once(milliseconds(100), [this] {
    if (const std::string fault = ledger_.write(lobby_.content()); !fault.empty()) {
      listener_.onLog(0, "what is to survive a restart cannot be kept: " + fault);
    }
  });
}

void Stage::Impl::admit(Number guest) {
  if (Entry* entry = find(guest)) entry->seat->admit();
}

void Stage::Impl::setLive(Number guest, bool live) {
  if (Entry* entry = find(guest)) entry->seat->setLive(live);
}

void Stage::Impl::mute(Number guest, bool muted) {
  if (Entry* entry = find(guest)) entry->seat->mute(muted);
}

void Stage::Impl::remove(Number guest) {
  Entry* entry = find(guest);
  if (!entry) return;
  shutOut(*entry);
  entry->seat->remove();
}

std::vector<Stage::Guest> Stage::Impl::guests() const {
  std::vector<Guest> all;
  for (const auto& [number, entry] : seats_) all.push_back(entry.guest);
  return all;
}

std::string Stage::Impl::invite(const std::string& name) {
  const std::string key = lobby_.invite(name);
  writeLedger();
  return key.empty() ? key : linkFor(key);
}

std::string Stage::Impl::linkFor(const std::string& key) const {
  return fmt::format("{}#invite={}", web_.pageUrl(), key);
}

// ---- The show --------------------------------------------------------------------

void Stage::Impl::setShow(const ShowState& show) {
  show_ = show;
  conversation_.onAir = show.onAir;
  updateConversation();
  for (auto& [number, entry] : seats_) {
    entry.seat->setShow(show);
    hearOffAir(entry);
  }
}

void Stage::Impl::offAirAudio(bool on) {
  offAirAudio_ = on;
  for (auto& [number, entry] : seats_) hearOffAir(entry);
}

// Talk of whoever is in, and no more of it than a person reads.
bool Stage::Impl::passOn(const Seat& seat) {
  if (seat.place() == Place::outside) return false;
  if (talkLimit_.take(std::to_string(seat.number()), TalkLimit::Clock::now())) return true;
  ++linesLeftOut_;
  if (!talkTimer_.runs()) talkTimer_.every(talkPause, [this] { tellOfTalk(); });
  return false;
}

// Once it is over.
void Stage::Impl::tellOfTalk() {
  if (std::exchange(linesTold_, linesLeftOut_) != linesLeftOut_) return;
  talkTimer_.stop();
  linesTold_ = 0;
  listener_.onTalkLeftOut(std::exchange(linesLeftOut_, 0));
}

void Stage::Impl::onSeatChat(Seat& seat, const std::string& text, const std::string& uuid) {
  if (!passOn(seat)) return;
  const auto line = talk_.fromGuest(seat.name(), text, uuid);
  if (!line) return;
  for (auto& [number, entry] : seats_) {
    if (number != seat.number() && entry.seat->place() != Place::outside) {
      entry.seat->chat(line->name, line->text, line->uuid);
    }
  }
  listener_.onChat(seat.number(), line->name, line->text, line->uuid);
}

void Stage::Impl::onSeatFavourite(Seat& seat, const std::string& uuid, const std::string& state) {
  if (!passOn(seat) || !talk_.favourite(uuid, state)) return;
  for (auto& [number, entry] : seats_) {
    if (number != seat.number()) entry.seat->favourite(uuid, state);
  }
  listener_.onFavourite(seat.number(), uuid, state);
}

void Stage::Impl::chat(const std::string& name, const std::string& text, const std::string& uuid) {
  const Line line = talk_.fromStudio(name, text, uuid);
  for (auto& [number, entry] : seats_) {
    // Who only rings gets it with the last lines when they are let in.
    if (entry.seat->place() != Place::outside) entry.seat->chat(line.name, line.text, line.uuid);
  }
}

void Stage::Impl::comment(const std::string& name, const std::string& text, const std::string& uuid) {
  for (auto& [number, entry] : seats_) entry.seat->comment(name, text, uuid);
}

void Stage::Impl::favourite(const std::string& uuid, const std::string& state) {
  talk_.favourite(uuid, state);
  for (auto& [number, entry] : seats_) entry.seat->favourite(uuid, state);
}

// ---- Sound -----------------------------------------------------------------------

void Stage::Impl::offAirAudio(Number guest, bool on) {
  Entry* entry = find(guest);
  if (!entry) return;
  entry->offAirWanted = on;
  hearOffAir(*entry);
}

void Stage::Impl::fade(Number guest, float gain) {
  gain = gain >= 0 ? std::min(gain, mostGain) : 0;  // what is no number is silence
  if (guest == sound::showItself) {
    showStanding_.fader = gain;
    mixer_.setStanding(sound::showItself, showStanding_);
  }
  Entry* entry = find(guest);
  if (!entry) return;
  entry->guest.fader = gain;
  updateSound(*entry);
  listener_.onChanged(entry->guest);
}

void Stage::Impl::muteInProgram(Number guest, bool muted) {
  if (guest == sound::showItself) {
    showStanding_.programMuted = muted;
    mixer_.setStanding(sound::showItself, showStanding_);
  }
  Entry* entry = find(guest);
  if (!entry) return;
  entry->guest.programMuted = muted;
  updateSound(*entry);
  listener_.onChanged(entry->guest);
}

void Stage::Impl::talk(sound::Talkback talkback) {
  const sound::Talkback before = std::exchange(conversation_.talkback, talkback);
  updateConversation();
  for (auto& [number, entry] : seats_) {
    if (before.on && !talkback.on && entry.guest.offAirAudio) {
      entry.offAirLater.once(answerTime, [this, guest = number] {
        if (Entry* answered = find(guest)) hearOffAir(*answered);
      });
    }
    hearOffAir(entry);
  }
}

void Stage::Impl::hearAlone(std::optional<Number> guest) {
  conversation_.solo = guest;
  updateConversation();
  for (auto& [number, entry] : seats_) hearOffAir(entry);
}

// Off-air audio is each seat's own: for all, for this guest, or for as long as the host needs to hear them.
void Stage::Impl::hearOffAir(Entry& entry) {
  const Number guest = entry.guest.number;
  const sound::Talkback& talkback = conversation_.talkback;
  const bool spokenTo =
      talkback.on && entry.seat->place() == Place::greenRoom && talkback.guest.value_or(guest) == guest;
  const bool on = offAirAudio_ || entry.offAirWanted || conversation_.solo == guest || spokenTo ||
                  entry.offAirLater.runs();
  if (on == entry.guest.offAirAudio) return;
  entry.guest.offAirAudio = on;
  entry.seat->setOffAirAudio(on);
  updateSound(entry);
  listener_.onChanged(entry.guest);
}

void Stage::Impl::updateSound(Entry& entry) {
  const bool in = entry.guest.state == State::greenRoom || entry.guest.state == State::live;
  mixer_.setStanding(entry.guest.number, {.place = in ? entry.seat->place() : Place::outside,
                                          .muted = entry.guest.muted,
                                          .offAirAudio = entry.guest.offAirAudio,
                                          .fader = entry.guest.fader,
                                          .programMuted = entry.guest.programMuted});
}

void Stage::Impl::updateConversation() {
  mixer_.setConversation(conversation_);
}

void Stage::Impl::onSeatFrame(Number number, Seat::Kind kind, Frame frame) {
  listener_.onFrame(number, static_cast<Kind>(kind), std::move(frame));
}

void Stage::Impl::onSeatSound(Number number, std::span<const std::int16_t> samples) {
  mixer_.push(number, samples);
}

void Stage::Impl::onMix(sound::Voice voice, std::span<const std::int16_t> block) {
  if (voice == sound::program) {
    listener_.onProgramSound(block);
  } else if (voice == sound::host) {
    listener_.onHostSound(block);
  } else {
    const std::lock_guard lock(playersMutex_);
    const auto player = players_.find(voice);
    if (player != players_.end()) player->second->play(block);
  }
}

void Stage::Impl::onSource(sound::Voice source, std::span<const std::int16_t> block) {
  if (source != sound::host) listener_.onSound(source, block);
}

void Stage::Impl::onLevels(std::span<const sound::SourceLevel> levels) {
  static_assert(sound::showItself == 0);
  std::array<Level, 64> told;
  std::size_t count = 0;
  for (const sound::SourceLevel& each : levels) {
    if (each.source == sound::host || each.source == sound::program || count == told.size()) continue;
    told[count++] = {each.source, each.level.peak, each.level.rms};
  }
  listener_.onLevels({told.data(), count});
}

// ---- The face ----------------------------------------------------------------------

Stage::Stage(Settings settings, Listener& listener)
    : impl_(std::make_unique<Impl>(std::move(settings), listener)) {}
Stage::~Stage() = default;

void Stage::admit(Number guest) {
  impl_->admit(guest);
}
void Stage::live(Number guest) {
  impl_->setLive(guest, true);
}
void Stage::greenRoom(Number guest) {
  impl_->setLive(guest, false);
}
void Stage::mute(Number guest, bool muted) {
  impl_->mute(guest, muted);
}
void Stage::remove(Number guest) {
  impl_->remove(guest);
}
void Stage::offAirAudio(Number guest, bool on) {
  impl_->offAirAudio(guest, on);
}
void Stage::fade(Number guest, float gain) {
  impl_->fade(guest, gain);
}
void Stage::muteInProgram(Number guest, bool muted) {
  impl_->muteInProgram(guest, muted);
}
void Stage::talkTo(std::optional<Number> guest) {
  impl_->talk({true, guest});
}
void Stage::stopTalking() {
  impl_->talk({});
}
void Stage::hearAlone(std::optional<Number> guest) {
  impl_->hearAlone(guest);
}

void Stage::setShow(bool onAir, bool recordOnly) {
  ShowState show = impl_->show();
  show.onAir = onAir;
  show.recordOnly = recordOnly;
  impl_->setShow(show);
}

void Stage::offAirAudio(bool on) {
  impl_->offAirAudio(on);
}

void Stage::viewerCount(const std::string& count) {
  ShowState show = impl_->show();
  show.viewerCount = count;
  impl_->setShow(show);
}

void Stage::preferences(const std::string& text) {
  ShowState show = impl_->show();
  show.preferences = text;
  impl_->setShow(show);
}

void Stage::comment(const std::string& name, const std::string& text, const std::string& uuid) {
  impl_->comment(name, text, uuid);
}
void Stage::chat(const std::string& name, const std::string& text, const std::string& uuid) {
  impl_->chat(name, text, uuid);
}
void Stage::favourite(const std::string& uuid, const std::string& state) {
  impl_->favourite(uuid, state);
}

std::string Stage::invite(const std::string& name) {
  return impl_->invite(name);
}
std::string Stage::link() const {
  return impl_->link();
}
std::vector<Stage::Guest> Stage::guests() const {
  return impl_->guests();
}
bool Stage::showPicture(IOSurfaceRef picture) {
  return impl_->showPicture(picture);
}
bool Stage::showWanted() const {
  return impl_->showWanted();
}
void Stage::showSound(std::span<const std::int16_t> samples) {
  impl_->push(sound::showItself, samples);
}
void Stage::hostSound(std::span<const std::int16_t> samples) {
  impl_->push(sound::host, samples);
}

}  // namespace studio
