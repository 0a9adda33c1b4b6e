#include "app/options.h"

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

}  // namespace

Parsed parseOptions(int argc, char** argv) {
  Parsed parsed;
  Options& options = parsed.options;
  options.web = usualPage();
  options.service = besideThisProgram("zarvo-guest-service");
  options.log = isatty(STDOUT_FILENO) != 1;

  CLI::App app(
      "The reference studio: starts a session server and the guest service, serves the guests' page, and "
      "takes commands from standard input (\"help\" lists them). Reports are printed as JSON, one a line, on "
      "standard output.",
      "zarvo-studio");
  app.option_defaults()->always_capture_default();

  app.add_option("--show", options.show,
                 "What the guests see and hear: a file, a URI, a /dev/video device, a GStreamer description, "
                 "\"test\" or \"off\"");
  app.add_option("--width", options.width, "Width of the show's picture")->check(CLI::Range(16, 4096));
  app.add_option("--height", options.height, "Height of the show's picture")->check(CLI::Range(16, 4096));
  app.add_option("--fps", options.framesPerSecond, "Pictures a second of the show")
      ->check(CLI::Range(1, 120));

  app.add_option("--listen", options.listen,
                 "Address at which the guests' page is served; 0.0.0.0 for all of this machine's")
      ->group("Guests' page");
  app.add_option("--port", options.port, "Its port; 0: 8080, or a free one if that is taken")
      ->group("Guests' page");
  app.add_option("--web", options.web, "Folder with the page's files")->group("Guests' page");
  CLI::Option* certificate =
      app.add_option("--certificate", options.certificate,
                     "PEM file: serve over TLS, as browsers ask for before they give a camera to a page from "
                     "another machine")
          ->check(CLI::ExistingFile)
          ->group("Guests' page");
  app.add_option("--key", options.key, "PEM file with the certificate's key")
      ->check(CLI::ExistingFile)
      ->needs(certificate)
      ->group("Guests' page");

  app.add_option("--janus", options.janus, "Janus's program")->group("Session server");
  app.add_option("--janus-port", options.janusPort,
                 "Port of Janus's WebSocket on 127.0.0.1; 0: a free one, or 8188 with --use-service")
      ->group("Session server");

  CLI::Option* service =
      app.add_option("--service", options.service, "The guest service's program")->group("Guest service");
  app.add_option("--use-service", options.running,
                 "Use the running service of this name; it has to be told of the session server itself, by "
                 "ZARVO_SESSION_SERVER")
      ->excludes(service)
      ->group("Guest service");
  app.add_flag("!--no-rejoin", options.autoRejoin,
               "Stay out of the session when the last guest has been removed, which ends it")
      ->group("Guest service");

  app.add_flag("--frames", options.everyFrame,
               "Print every frame, not only a guest's first and those of a new size")
      ->group("Reports");
  app.add_flag("--sounds", options.everySound, "Print every piece of sound, not only the first after silence")
      ->group("Reports");
  app.add_flag("--log,!--no-log", options.log,
               "Print the service's log lines; without either, unless the output is a terminal")
      ->group("Reports");

  try {
    app.parse(argc, argv);
    if (options.certificate.empty() != options.key.empty()) {
      throw CLI::ValidationError("--certificate needs --key");
    }
  } catch (const CLI::ParseError& error) {
    parsed.end = app.exit(error);
  }
  if (!options.running.empty() && options.janusPort == 0) options.janusPort = 8188;
  return parsed;
}

}  // namespace studio
