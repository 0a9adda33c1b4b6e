// What survives the studio: invitations, and the seats of guests who will look for theirs again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "stage/seat_state.h"

namespace studio {

/// What a guests' link holds. Whoever shows the key may ask for a seat.
struct Invitation {
  std::string key;
  std::string name;  ///< of the one guest it is good for; empty: for everybody
};

/// A seat as its guest's page knows it.
struct SeatRecord {
  std::uint32_t number = 0;
  std::string name;
  std::string key;  ///< only the guest's page has it
  Place place = Place::outside;
  bool muted = false;
};

/// The file in which they are kept, for this user only. One studio has it at a time.
class Ledger {
 public:
  struct Content {
    std::uint32_t lastNumber = 0;  ///< of all seats that ever were; numbers are never given twice
    std::vector<Invitation> invitations;
    std::vector<SeatRecord> seats;
  };

  /// Takes the file for this studio; an empty path keeps nothing. Throws std::runtime_error with a text that
  /// says what to do when another studio has it, or it cannot be used.
  explicit Ledger(std::filesystem::path file);
  ~Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  /// What the last studio wrote; empty where there was none. A file that is damaged counts as none, and is
  /// kept beside under another name.
  Content read() const;
  /// Replaces the file as a whole. Answers what went wrong, or nothing.
  std::string write(const Content& content) const;

 private:
  std::filesystem::path file_;
  int lock_ = -1;
};

}  // namespace studio
