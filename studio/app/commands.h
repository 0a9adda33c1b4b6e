// The prompt's language.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace studio {

enum class Verb {
  admit,
  live,
  greenroom,
  mute,
  unmute,
  remove,
  offair,
  golive,
  record,
  endshow,
  viewers,
  comment,
  chat,
  fav,
  pref,
  talk,
  alone,
  fade,
  invite,
  guests,
  snapshot,
  recordAudio,
  show,
  link,
  log,
  help,
  exit,
};

/// One line of the prompt, understood. Only what the verb asks for is filled in.
struct Command {
  Verb verb = Verb::help;
  std::string guest;  ///< as typed: "#" and a number, a name, an id or its beginning
  std::string name;   ///< of `comment` and `chat`
  std::string text;   ///< of `comment`, `chat`, `pref`, `show`, `help`; the number of `viewers`
  std::string uuid;   ///< of `fav`
  std::string file;
  double seconds = 0;
  double decibels = 0;  ///< of `fade`
  bool on = false;
};

/// Why a line was not understood, and what to type instead.
struct Misunderstood {
  std::string text;
};

/// An empty line is misunderstood with an empty text.
std::variant<Command, Misunderstood> parseCommand(std::string_view line);

/// One row of the prompt's help.
struct CommandHelp {
  Verb verb;
  std::string_view name;
  std::string_view arguments;
  std::string_view effect;
};
std::span<const CommandHelp> commandHelp();

/// The help of one command, or of all for an empty name. Says so if there is none of that name.
std::string helpText(std::string_view name);

}  // namespace studio
