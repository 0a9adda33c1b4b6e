// A whole studio: whoever rings comes in, hears all others and is on air.
#include <glib.h>
#include <studio/service_process.h>
#include <studio/stage.h>

#include <cstdio>
#include <exception>

class TalkShow : public studio::Stage::Listener {
 public:
  explicit TalkShow(const char* page) : stage_(settings(page), *this) {}

 private:
  using Stage = studio::Stage;

  static Stage::Settings settings(const char* page) {
    Stage::Settings settings;
    settings.page = page;
    settings.service = studio::besideThisProgram("zarvo-guest-service");
    return settings;
  }
  void onReady(const std::string& link) override { std::printf("Guests ring in at %s\n", link.c_str()); }
  void onRing(const Stage::Guest& guest) override {
    stage_.admit(guest.number);
    stage_.live(guest.number);
  }
  void onFailed(const std::string& reason) override { g_error("%s", reason.c_str()); }
  void onFrame(Stage::Number guest, Stage::Kind, studio::Frame frame) override {  // shared, not copied
    if (frame.number() % 100 == 0) std::printf("#%u: %zu x %zu\n", guest, frame.width(), frame.height());
  }

  Stage stage_;
};

int main(int, char** arguments) try {
  const TalkShow show(arguments[1]);  // the folder of the guests' page
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
