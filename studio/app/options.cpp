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
                 "Port of Janus's WebSocket on 127.0.0.1; otherwise a free one, or 8188 with --use-service");

  app.option_defaults()->group("Guest service");
  CLI::Option* service =
      app.add_option("--service", options.service, "The guest service's program, if not the one beside this");
  app.add_option("--use-service", options.running,
                 "Use the running service of this name; it has to know the session server by itself, from "
                 "ZARVO_SESSION_SERVER")
      ->excludes(service);
  bool stayOut = false;
  app.add_flag("--no-rejoin", stayOut,
               "When the last guest has been removed, which ends the session, do not join it anew");

  app.option_defaults()->group("Reports");
  app.add_flag("--frames", options.everyFrame,
               "Print every frame, not only a guest's first and those of a new size");
  app.add_flag("--sounds", options.everySound,
               "Print every piece of sound, not only the first after silence");
  bool quiet = false;
  CLI::Option* log = app.add_flag("--log", options.log, "Print the service's log lines, at a terminal too");
  app.add_flag("--no-log", quiet, "Do not print them, where the output is no terminal either")->excludes(log);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    parsed.end = app.exit(error);
  }
  options.autoRejoin = !stayOut;
  options.log = options.log && !quiet;
  if (!options.running.empty() && options.janusPort == 0) options.janusPort = 8188;
  return parsed;
}

}  // namespace studio
