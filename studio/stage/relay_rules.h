// What a guest may ask of the session server.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

namespace studio {

/// What one seat's guest has at the session server, over all connections: a session outlives its connection,
/// so that the guest's next one can claim it.
class SeatSessions {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::size_t most = 8;
  static constexpr int mostHandles = 8;  ///< in each
  /// How long the server keeps a session that has lost its connection, and a little more.
  static constexpr std::chrono::seconds kept{35};

  bool full(Time now);
  bool has(std::uint64_t session) const { return sessions_.contains(session); }
  void begin(std::uint64_t session);
  void claim(std::uint64_t session);
  /// Its connection has gone.
  void leave(std::uint64_t session, Time now);
  void end(std::uint64_t session) { sessions_.erase(session); }
  /// Whether the session may have one more handle; counts it.
  bool attach(std::uint64_t session);
  void detached(std::uint64_t session);

 private:
  struct Session {
    int handles = 0;
    std::optional<Time> left;
  };
  std::map<std::uint64_t, Session> sessions_;
};

/// Watches one connection: one session, a few handles, and the verbs that a guest has use for. What concerns
/// a room is the server's to judge, by the room's tokens, pin and secret.
class RelayRules {
 public:
  using Time = SeatSessions::Time;

  explicit RelayRules(std::shared_ptr<SeatSessions> seat) : seat_(std::move(seat)) {}

  /// Whether the guest's message may go on. After one that may not, the connection is to end.
  bool allows(std::string_view message, Time now);
  /// Learns from what the server says which session this is, and which handles are no more.
  void answered(std::string_view message);
  /// The connection has gone.
  void leave(Time now);

  /// The connection's session; 0 while there is none.
  std::uint64_t session() const { return session_; }

 private:
  std::shared_ptr<SeatSessions> seat_;
  std::uint64_t session_ = 0;
  bool created_ = false;
};

}  // namespace studio
