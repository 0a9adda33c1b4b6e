#include "app/commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace studio {

namespace {

// Each name in `arguments` is understood by `fill`, below; a bracket makes it optional.
constexpr CommandHelp table[] = {
    {Verb::guests, "guests", "", "list all guests: state, picture, frames a second, loudness"},
    {Verb::admit, "admit", "ID", "bring a guest who rings into the green room"},
    {Verb::live, "live", "ID", "put a guest on air"},
    {Verb::greenroom, "greenroom", "ID", "take a guest off air, back into the green room"},
    {Verb::mute, "mute", "ID", "have a guest's microphone switched off"},
    {Verb::unmute, "unmute", "ID", "let a guest's microphone be switched on again"},
    {Verb::remove, "remove", "ID", "take a guest out"},
    {Verb::golive, "golive", "", "the show is on air"},
    {Verb::record, "record", "", "the show runs, and is only recorded"},
    {Verb::endshow, "endshow", "", "the show is over"},
    {Verb::offair, "offair", "on|off", "hear the green room while the show is on air, or not"},
    {Verb::talk, "talk", "ID|all|off", "talk to one guest, or to all in the green room, and nobody else"},
    {Verb::alone, "alone", "ID|off", "hear one guest alone"},
    {Verb::fade, "fade", "ID DECIBELS", "how loud a guest is in the program: 0 as they come, -60 not at all"},
    {Verb::viewers, "viewers", "NUMBER", "tell the guests how many watch"},
    {Verb::comment, "comment", "NAME: TEXT", "show a viewer's comment to the guests"},
    {Verb::chat, "chat", "NAME: TEXT", "write to the guests"},
    {Verb::fav, "fav", "UUID [on|off]", "mark a comment or a chat line as favourite, or no longer"},
    {Verb::pref, "pref", "TEXT", "send preferences to the guests' page, as they stand"},
    {Verb::show, "show", "[SOURCE]", "show a file, URI, device, GStreamer description, \"test\" or \"off\""},
    {Verb::snapshot, "snapshot", "ID FILE", "write a guest's next picture to a PNG file"},
    {Verb::recordAudio, "record-audio", "ID SECONDS FILE", "write a guest's sound to a WAV file"},
    {Verb::link, "link", "", "print the guests' link again"},
    {Verb::invite, "invite", "[NAME]", "make a new link, which turns the old one off; or one for one guest"},
    {Verb::log, "log", "on|off", "print the services' log lines, or not"},
    {Verb::help, "help", "[COMMAND]", "explain the commands"},
    {Verb::exit, "exit", "", "end the show and the studio"},
};

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// Takes the first word off the text.
std::string_view takeWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find_first_of(blanks));
  text = trimmed(text.substr(word.size()));
  return word;
}

// Each of these fills in one argument from the text that is left, and answers what is wrong with it.
using Fault = std::string;

constexpr char whichGuest[] = "which guest? Say #NUMBER or a name; \"guests\" lists them";

// All that is left, since a name may be several words.
Fault takeGuest(Command& command, std::string_view& text) {
  if (text.size() > 1 && text.starts_with('"') && text.ends_with('"')) text = text.substr(1, text.size() - 2);
  command.guest = text;
  text = {};
  return command.guest.empty() ? whichGuest : "";
}

// One word, or several between quotation marks.
Fault takeGuestBefore(Command& command, std::string_view& text) {
  if (text.starts_with('"') && text.find('"', 1) != std::string_view::npos) {
    const std::size_t end = text.find('"', 1);
    command.guest = text.substr(1, end - 1);
    text = trimmed(text.substr(end + 1));
  } else {
    command.guest = takeWord(text);
  }
  return command.guest.empty() ? whichGuest : "";
}

Fault takeSwitch(Command& command, std::string_view& text, std::string_view otherwise) {
  const std::string_view word = text.empty() ? otherwise : takeWord(text);
  command.on = word == "on";
  return word == "on" || word == "off" ? "" : "say \"on\" or \"off\"";
}

Fault takeNameAndText(Command& command, std::string_view& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return "put a colon between the name and the text";
  command.name = trimmed(text.substr(0, colon));
  command.text = trimmed(text.substr(colon + 1));
  text = {};
  return command.name.empty() || command.text.empty() ? "both the name and the text are needed" : "";
}

Fault takeCount(Command& command, std::string_view& text) {
  command.text = takeWord(text);
  const bool digits = std::all_of(command.text.begin(), command.text.end(),
                                  [](char letter) { return letter >= '0' && letter <= '9'; });
  return command.text.empty() || !digits ? "how many? Give a whole number" : "";
}

Fault takeUuid(Command& command, std::string_view& text) {
  command.uuid = takeWord(text);
  return command.uuid.empty() ? "of which comment or chat line? Give its uuid" : "";
}

Fault takeSeconds(Command& command, std::string_view& text) {
  constexpr double longest = 3600;
  const std::string_view word = takeWord(text);
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), command.seconds);
  const bool good = error == std::errc() && end == word.data() + word.size() && command.seconds > 0 &&
                    command.seconds <= longest;
  return good ? "" : "for how many seconds? Give a number up to 3600";
}

Fault takeDecibels(Command& command, std::string_view& text) {
  const std::string_view word = takeWord(text);
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), command.decibels);
  const bool good = error == std::errc() && end == word.data() + word.size() && command.decibels >= -60 &&
                    command.decibels <= 12;
  return good ? "" : "how loud? Give decibels from -60 to 12";
}

// A file name is the rest of the line, blanks and all.
Fault takeFile(Command& command, std::string_view& text, std::string_view ending) {
  command.file = text;
  text = {};
  const bool good = command.file.size() > ending.size() && command.file.ends_with(ending);
  return good ? "" : fmt::format("to which file? Give a name that ends in {}", ending);
}

Fault takeText(Command& command, std::string_view& text, bool needed) {
  command.text = text;
  text = {};
  return command.text.empty() && needed ? "the text is missing" : "";
}

Fault fill(Command& command, std::string_view& text) {
  switch (command.verb) {
    case Verb::admit:
    case Verb::live:
    case Verb::greenroom:
    case Verb::mute:
    case Verb::unmute:
    case Verb::remove:
    case Verb::talk:
    case Verb::alone:
      return takeGuest(command, text);
    case Verb::fade: {
      Fault fault = takeGuestBefore(command, text);
      return fault.empty() ? takeDecibels(command, text) : fault;
    }
    case Verb::offair:
    case Verb::log:
      return takeSwitch(command, text, "");
    case Verb::viewers:
      return takeCount(command, text);
    case Verb::comment:
    case Verb::chat:
      return takeNameAndText(command, text);
    case Verb::fav: {
      Fault fault = takeUuid(command, text);
      return fault.empty() ? takeSwitch(command, text, "on") : fault;
    }
    case Verb::pref:
      return takeText(command, text, true);
    case Verb::show:
    case Verb::invite:
    case Verb::help:
      return takeText(command, text, false);
    case Verb::snapshot: {
      Fault fault = takeGuestBefore(command, text);
      return fault.empty() ? takeFile(command, text, ".png") : fault;
    }
    case Verb::recordAudio: {
      Fault fault = takeGuestBefore(command, text);
      if (fault.empty()) fault = takeSeconds(command, text);
      return fault.empty() ? takeFile(command, text, ".wav") : fault;
    }
    case Verb::golive:
    case Verb::record:
    case Verb::endshow:
    case Verb::guests:
    case Verb::link:
    case Verb::exit:
      break;
  }
  return "";
}

std::string usage(const CommandHelp& row) {
  return row.arguments.empty() ? std::string(row.name) : fmt::format("{} {}", row.name, row.arguments);
}

const CommandHelp* find(std::string_view name) {
  const auto row =
      std::find_if(std::begin(table), std::end(table), [&](const auto& each) { return each.name == name; });
  return row == std::end(table) ? nullptr : row;
}

}  // namespace

std::variant<Command, Misunderstood> parseCommand(std::string_view line) {
  std::string_view text = trimmed(line);
  if (text.empty()) return Misunderstood{};
  if (text.find('\0') != std::string_view::npos) return Misunderstood{"a command is text without NULs"};
  const std::string_view word = takeWord(text);
  const CommandHelp* row = find(word);
  if (!row) {
    return Misunderstood{fmt::format("there is no command \"{}\"; \"help\" lists those there are", word)};
  }
  Command command;
  command.verb = row->verb;
  Fault fault = fill(command, text);
  if (fault.empty() && !text.empty()) fault = fmt::format("\"{}\" is too much", text);
  if (fault.empty()) return command;
  return Misunderstood{fmt::format("{}: {}\nusage: {}", row->name, fault, usage(*row))};
}

std::span<const CommandHelp> commandHelp() {
  return table;
}

std::string helpText(std::string_view name) {
  if (!name.empty()) {
    const CommandHelp* row = find(name);
    if (!row) return fmt::format("there is no command \"{}\"; \"help\" lists those there are", name);
    return fmt::format("{} - {}", usage(*row), row->effect);
  }
  std::string text;
  for (const CommandHelp& row : table) text += fmt::format("  {:<29} {}\n", usage(row), row.effect);
  text +=
      "A guest (ID) is named by number as \"guests\" numbers them, or by name; "
      "before more words, a name of several stands in \"quotation marks\".";
  return text;
}

}  // namespace studio
