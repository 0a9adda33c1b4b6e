#include "app/options.h"

#include <glib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "studio/service_process.h"

namespace studio {

namespace {

// The page's folder as it is installed beside the program, or else as it lies beside the sources.
std::filesystem::path usualPage() {
  const auto installed = besideThisProgram("../share/zarvo/guest").lexically_normal();
  return std::filesystem::is_directory(installed) ? installed : std::filesystem::path(ZARVO_WEB_DIRECTORY);
}

std::filesystem::path usualLedger() {
  g_autofree char* path = g_build_filename(g_get_user_state_dir(), "zarvo", "lobby.json", nullptr);
  return path;
}

}  // namespace

Parsed parseOptions(int argc, char** argv) {
  Parsed parsed;
  Options& options = parsed.options;
  options.web = usualPage();
  options.service = besideThisProgram("zarvo-guest-service");
  options.ledger = usualLedger();
  options.log = isatty(STDOUT_FILENO) != 1;

  CLI::App app(
      "The reference studio: starts a session server and the guest service, serves the guests' page, and "
      "takes commands from standard input (\"help\" lists them). Reports are printed as JSON, one a line, on "
      "standard output.",
      "zarvo-studio");

  app.add_option("--show", options.show,
                 "What the guests see and hear: a file, a URI, a /dev/video device, a GStreamer description, "
                 "\"off\", or \"test\", which is the default");
  app.add_option("--width", options.width, "Width of the show's picture")
      ->check(CLI::Range(16, 4096))
      ->capture_default_str();
  app.add_option("--height", options.height, "Height of the show's picture")
      ->check(CLI::Range(16, 4096))
      ->capture_default_str();
  app.add_option("--fps", options.framesPerSecond, "Pictures a second of the show")
      ->check(CLI::Range(1, 120))
      ->capture_default_str();

  app.option_defaults()->group("Host");
  app.add_option("--microphone", options.microphone,
                 "The host's voice: \"auto\" for the machine's microphone, a file, or a GStreamer source")
      ->capture_default_str();
  app.add_option(
         "--monitor", options.monitor,
         "Where the host hears the guests: \"auto\" for the machine's headphones, a .wav or .flac file, "
         "or a GStreamer sink")
      ->capture_default_str();

  app.option_defaults()->group("Guests' page");
  app.add_option("--listen", options.listen,
                 "Address at which the page is served; 0.0.0.0 for all of this machine's")
      ->capture_default_str();
  app.add_option("--port", options.port, "Its port; otherwise 8080, or a free one if that is taken");
  app.add_option("--web", options.web, "Folder with the page's files, if not the usual one");
  CLI::Option* certificate = app.add_option("--certificate", options.certificate,
                                            "PEM file: serve over TLS, which browsers on other machines ask "
                                            "for before they give the page a camera")
                                 ->check(CLI::ExistingFile);
  CLI::Option* key = app.add_option("--key", options.key, "PEM file with the certificate's key")
                         ->check(CLI::ExistingFile)
                         ->needs(certificate);
  certificate->needs(key);

  app.option_defaults()->group("Session server");
  app.add_option("--janus", options.janus, "Janus's program")->capture_default_str();
  app.add_option("--janus-port", options.janusPort,
                 "Port of Janus's WebSocket on 127.0.0.1; otherwise a free one");

  app.option_defaults()->group("Guest service");
  app.add_option("--service", options.service, "The guest service's program, if not the one beside this");

  app.option_defaults()->group("Seats");
  app.add_option("--seats", options.seats, "Guests at once, those who are away included")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  app.add_option("--away", options.awaySeconds, "Seconds for which the seat of a guest who is away is kept")
      ->check(CLI::Range(1, 86'400))
      ->capture_default_str();
  app.add_option("--requests", options.requestsAMinute,
                 "Requests for a seat that one address may make a minute")
      ->check(CLI::Range(1, 10'000))
      ->capture_default_str();
  app.add_option("--state", options.ledger,
                 "File that keeps invitations and seats over a restart; \"\" keeps nothing")
      ->capture_default_str();

  app.option_defaults()->group("Reports");
  app.add_flag("--frames", options.everyFrame,
               "Print every frame, not only a guest's first and those of a new size");
  bool quiet = false;
  CLI::Option* log = app.add_flag("--log", options.log, "Print the services' log lines, at a terminal too");
  app.add_flag("--no-log", quiet, "Do not print them, where the output is no terminal either")->excludes(log);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    parsed.end = app.exit(error);
  }
  options.log = options.log && !quiet;
  return parsed;
}

}  // namespace studio
